// Owner of a system handle. Windows only.
#pragma once

#include <utility>

#include <windows.h>

namespace Tavrin::SplatProgram {

class Handle {
public:
    Handle() = default;
    // Takes ownership. A system function that fails returns either null or INVALID_HANDLE_VALUE; both make it
    // empty.
    explicit Handle(HANDLE handle) : handle_(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
    Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { close(); }

    explicit operator bool() const { return handle_ != nullptr; }
    HANDLE get() const { return handle_; }
    HANDLE release() { return std::exchange(handle_, nullptr); }
    void close() {
        if (handle_ != nullptr) {
            CloseHandle(std::exchange(handle_, nullptr));
        }
    }

private:
    HANDLE handle_ = nullptr;
};

} // namespace Tavrin::SplatProgram
