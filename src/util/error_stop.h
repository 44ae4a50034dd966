#pragma once
// An error stop: thrown after the failure has been logged; main turns it into
// the process exit status without printing anything further.
#include <exception>

namespace krel {

class error_stop : public std::exception {
public:
    explicit error_stop(int status = 1) : status_(status == 0 ? 1 : status) {}
    int status() const noexcept { return status_; }
    const char* what() const noexcept override { return "error stop"; }

private:
    int status_;
};

}  // namespace krel
