#ifndef BASELIBRARY_PERSISTENT_KEY_H
#define BASELIBRARY_PERSISTENT_KEY_H

#include "brevi_export.h"
#include "persistent/keydata.h"
#include "persistent/keyhash.h"

namespace Brevi {

// What a caller of BPlusTree derives from: one record and its key. The tree
// knows nothing of the record's format; it asks the key for its hash and size,
// has it write and read the record, and asks it whether a stored record is this
// key.
//
// A key that has not been placed yet answers hash() with sequence 0. insert()
// gives it its final KeyHash through setHash(), and the key keeps that: the
// find, update and remove that go by full KeyHash use it.
//
// Copying a Key copies nothing: the derived class copies its own fields.
class BREVI_EXPORT Key
{
public:
    Key() = default;
    Key(const Key&) { }
    Key& operator=(const Key&) { return *this; }
    virtual ~Key();

    // The final KeyHash, given by insert().
    virtual void setHash(const KeyHash& hash) = 0;
    // The hash of this key, with its sequence number once placed, 0 before.
    virtual KeyHash hash() const = 0;
    // Bytes of the record. At most BPlusTree::maximumKeySize().
    virtual unsigned size() const = 0;
    // Writes the record into `data`, which has size() bytes.
    virtual void store(KeyData& data) const = 0;
    // Fills this key from a stored record.
    virtual void load(const KeyData& data) = 0;
    // Whether a stored record with this key's hash is this key.
    virtual bool equal(const KeyData& data) const = 0;
    // Traces a stored record, for BPlusTree::displayKeys(); does nothing unless
    // overridden.
    virtual void display(const KeyData& data) const;
};

} // namespace Brevi

#endif
