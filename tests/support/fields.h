// Checks that a record declares its fields in a given order.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>

namespace support {

// The memory of one field of an object.
struct FieldPlace {
    const char* name;
    const char* begin;
    const char* end;

    template <typename Field>
    FieldPlace(const char* fieldName, const Field& field)
        : name(fieldName), begin(reinterpret_cast<const char*>(&field)), end(begin + sizeof(Field)) {}
};

// Expects each field of the list to start at or after the end of the one before it.
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
