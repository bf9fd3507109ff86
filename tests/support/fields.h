// Checks that a record declares its fields in a given order.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>

namespace support {

// Where one field of an object lies.
struct FieldPlace {
    const char* name;
    const char* begin;
    const char* end;

    template <typename Field>
    FieldPlace(const char* fieldName, const Field& field)
        : name(fieldName), begin(reinterpret_cast<const char*>(&field)), end(begin + sizeof(Field)) {}
};

// Each field of the list starts where the one before it ends, or behind that.
inline void expectDeclaredInOrder(std::initializer_list<FieldPlace> fields) {
    const FieldPlace* previous = nullptr;
    for (const FieldPlace& field : fields) {
        if (previous != nullptr) {
            EXPECT_GE(field.begin, previous->end) << field.name << " does not follow " << previous->name;
        }
        previous = &field;
    }
}

} // namespace support
