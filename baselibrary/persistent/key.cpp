#include "persistent/key.h"

namespace Brevi {

Key::~Key() = default;

void Key::display(const KeyData&) const { }

} // namespace Brevi
