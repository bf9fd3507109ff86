// Owns a handle of the system. Windows only.
#pragma once

#include <utility>
#include <windows.h>

namespace Tavrin::SplatProgram {

class Handle {
public:
    Handle() = default;
    // Takes it over; functions of the system that fail give either a null handle or INVALID_HANDLE_VALUE.
    explicit Handle(HANDLE handle) : m_handle(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
    Handle(Handle&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { close(); }

    explicit operator bool() const { return m_handle != nullptr; }
    HANDLE get() const { return m_handle; }
    HANDLE release() { return std::exchange(m_handle, nullptr); }
    void close() {
        if (m_handle != nullptr) {
            CloseHandle(std::exchange(m_handle, nullptr));
        }
    }

private:
    HANDLE m_handle = nullptr;
};

} // namespace Tavrin::SplatProgram
