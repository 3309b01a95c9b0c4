#include "DIAG/user_msg_api.h"

#include <cstdarg>

namespace {

template <class KIND>
dc_SEVERITY report(unsigned code, const DIAG_SRCINFO* src, const std::string& text) {
    KIND d(DIAGNOSTIC::get_info(static_cast<int>(code)), "DIAG/user_msg_api", __LINE__, src);
    d.set_text(text);
    d.report();
    return d.severity();
}

}  // namespace

#define FORMATTED(fmt)                              \
    va_list ap;                                     \
    va_start(ap, fmt);                              \
    std::string text = diag_vformat(fmt, ap);     \
    va_end(ap)

USER_MSG& USER_MSG::get_umsg_obj() {
    static USER_MSG obj;
    return obj;
}

unsigned USER_MSG::get_error_count() const { return diag_error_count(); }

void USER_MSG::debug(const char* fmt, ...) {
    FORMATTED(fmt);
    report<DIAG::gdebug>(99920, nullptr, text);
}

void USER_MSG::remark(const char* fmt, ...) {
    FORMATTED(fmt);
    report<DIAG::gremark>(99921, nullptr, text);
}

void USER_MSG::advice(const char* fmt, ...) {
    FORMATTED(fmt);
    report<DIAG::gadvice>(99927, nullptr, text);
}

void USER_MSG::advice(const DIAG_SRCINFO* src, const char* fmt, ...) {
    FORMATTED(fmt);
    report<DIAG::gadvice>(99927, src, text);
}

void USER_MSG::emit_warning(const DIAG_SRCINFO* src, const std::string& text) {
    if (warnings_as_errors_) {
        report<DIAG::gerror>(99923, src, text);
        diag_count_error();
    } else {
        report<DIAG::gwarning>(99922, src, text);
    }
}

void USER_MSG::warning(unsigned, const char* fmt, ...) {
    FORMATTED(fmt);
    emit_warning(nullptr, text);
}

void USER_MSG::warning(const DIAG_SRCINFO* src, unsigned, const char* fmt, ...) {
    FORMATTED(fmt);
    emit_warning(src, text);
}

void USER_MSG::error(const char* fmt, ...) {
    FORMATTED(fmt);
    report<DIAG::gerror>(99923, nullptr, text);
    diag_count_error();
}

void USER_MSG::error(const DIAG_SRCINFO* src, const char* fmt, ...) {
    FORMATTED(fmt);
    report<DIAG::gerror>(99923, src, text);
    diag_count_error();
}

void USER_MSG::apperror(const char* fmt, ...) {
    FORMATTED(fmt);
    report<DIAG::gapperror>(99924, nullptr, text);
    diag_count_error();
}

void USER_MSG::fatal(const char* fmt, ...) {
    FORMATTED(fmt);
    report<DIAG::gfatal>(99925, nullptr, text);
    diag_exit();
}

void USER_MSG::fatal(const DIAG_SRCINFO* src, const char* fmt, ...) {
    FORMATTED(fmt);
    report<DIAG::gfatal>(99925, src, text);
    diag_exit();
}

void USER_MSG::die(const char* where, const char* fmt, ...) {
    FORMATTED(fmt);
    std::string joined = std::string(where ? where : "") + ": " + text;
    report<DIAG::gdie>(99926, nullptr, "(" + joined + ")");
    diag_exit();
}
