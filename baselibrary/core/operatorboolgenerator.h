#ifndef BASELIBRARY_CORE_OPERATORBOOLGENERATOR_H
#define BASELIBRARY_CORE_OPERATORBOOLGENERATOR_H

namespace Brevi {

// The library's value types test as bool (`if (msg)`, `if (!address)`) through a
// pointer to a member function rather than a plain `operator bool`: such a
// pointer converts to bool in a condition but never to an integer, so a valid
// object cannot be added, compared or passed where a number is expected.
//
//   class Foo {
//   public:
//       operator OperatorBoolGenerator<Foo>::Result() const
//       { return OperatorBoolGenerator<Foo>::make(isValid()); }
//   };
template <typename Owner>
class OperatorBoolGenerator
{
public:
    typedef void (OperatorBoolGenerator::*Result)() const;

    static Result make(bool value) { return value ? &OperatorBoolGenerator::isTrue : nullptr; }

private:
    void isTrue() const {}
};

} // namespace Brevi

#endif
