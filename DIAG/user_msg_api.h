// The user-message interface: every call formats its text and emits it as a
// diagnostic of its own kind (codes 99920 to 99927).
#pragma once

#include <string>

#include "DIAG/diag.h"

#define UMSG_PRINTF(f, a) __attribute__((format(printf, f, a)))

class USER_MSG {
public:
    static USER_MSG& get_umsg_obj();

    void debug(const char* fmt, ...) UMSG_PRINTF(2, 3);
    void remark(const char* fmt, ...) UMSG_PRINTF(2, 3);
    void advice(const char* fmt, ...) UMSG_PRINTF(2, 3);
    void advice(const DIAG_SRCINFO* src, const char* fmt, ...) UMSG_PRINTF(3, 4);
    void warning(unsigned id, const char* fmt, ...) UMSG_PRINTF(3, 4);
    void warning(const DIAG_SRCINFO* src, unsigned id, const char* fmt, ...) UMSG_PRINTF(4, 5);
    void error(const char* fmt, ...) UMSG_PRINTF(2, 3);
    void error(const DIAG_SRCINFO* src, const char* fmt, ...) UMSG_PRINTF(3, 4);
    void apperror(const char* fmt, ...) UMSG_PRINTF(2, 3);
    // fatal() and die() end the run after reporting.
    [[noreturn]] void fatal(const char* fmt, ...) UMSG_PRINTF(2, 3);
    [[noreturn]] void fatal(const DIAG_SRCINFO* src, const char* fmt, ...) UMSG_PRINTF(3, 4);
    [[noreturn]] void die(const char* where, const char* fmt, ...) UMSG_PRINTF(3, 4);

    unsigned get_error_count() const;
    // Turns every later warning into an error (message 99923).
    void emit_warnings_as_errors(bool on = true) { warnings_as_errors_ = on; }
    bool warnings_are_errors() const { return warnings_as_errors_; }

private:
    USER_MSG() = default;
    void emit_warning(const DIAG_SRCINFO* src, const std::string& text);
    bool warnings_as_errors_ = false;
};

#undef UMSG_PRINTF
