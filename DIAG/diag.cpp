#include "DIAG/diag.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>

#include "UTIL/cleanup.h"

namespace {
std::map<unsigned, dc_SEVERITY>& overrides() {
    static std::map<unsigned, dc_SEVERITY> m;
    return m;
}
std::vector<bool>& debug_mode_stack() {
    static std::vector<bool> s;
    return s;
}
std::vector<int>& indent_stack() {
    static std::vector<int> s;
    return s;
}
unsigned error_count = 0;

}  // namespace

std::string diag_vformat(const char* fmt, va_list ap) {
    if (!fmt) fmt = "";
    va_list copy;
    va_copy(copy, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n < 0) return {};
    std::string out(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(out.data(), out.size(), fmt, ap);
    out.resize(static_cast<size_t>(n));
    return out;
}

namespace {
std::string format_text(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::string s = diag_vformat(fmt, ap);
    va_end(ap);
    return s;
}
}  // namespace

bool DIAGNOSTIC::debug_m = false;
bool DIAGNOSTIC::remarks_m = false;
bool DIAGNOSTIC::warnings_m = true;
bool DIAGNOSTIC::advice_m = false;
bool DIAGNOSTIC::display_code_m = false;
bool DIAGNOSTIC::display_ipos_m = false;
bool DIAGNOSTIC::wrap_enabled_m = false;
bool DIAGNOSTIC::wrap_headers_m = false;
int DIAGNOSTIC::indent_m = 0;
bool DIAGNOSTIC::debug_mode_m = false;
int DIAGNOSTIC::wrap_width_m = 79;
FILE* DIAGNOSTIC::out_m = nullptr;

unsigned diag_error_limit = 0;

const char* severity_word(int severity) {
    static const char* const words[] = {"(suppressed)", "(no error)", "advice", "debug",
                                        "remark",       "warning",    "error",  "fatal error"};
    if (severity < 0 || severity > 7) return "(unknown)";
    return words[severity];
}

DIAGNOSTIC::DIAGNOSTIC(const DIAG_INFO* info, const char* file, unsigned line, const DIAG_SRCINFO* src)
    : info_(info), file_(file ? file : ""), line_(line), src_(src) {}

DIAGNOSTIC::~DIAGNOSTIC() { free_mem(); }

void DIAGNOSTIC::set_args(va_list ap) { text_ = diag_vformat(info_->std_msg, ap); }

const DIAG_INFO* DIAGNOSTIC::get_info(int code) {
    const DIAG_INFO* end = diag_info_table + diag_info_count;
    const DIAG_INFO* it = std::lower_bound(diag_info_table, end, static_cast<unsigned>(code),
                                           [](const DIAG_INFO& d, unsigned c) { return d.code < c; });
    return (it != end && it->code == static_cast<unsigned>(code)) ? it : nullptr;
}

dc_SEVERITY DIAGNOSTIC::severity() const {
    auto it = overrides().find(info_->code);
    return it == overrides().end() ? info_->severity : it->second;
}

const char* DIAGNOSTIC::sev_str() const { return severity_word(severity()); }

static bool discretionary(const DIAG_INFO* info) {
    return !info->internal && !info->fixed && info->severity < dc_FATAL && info->severity != dc_ADVICE;
}

bool DIAGNOSTIC::is_discretionary() const { return discretionary(info_); }

bool DIAGNOSTIC::override_severity(unsigned code, dc_SEVERITY sev) {
    const DIAG_INFO* info = get_info(static_cast<int>(code));
    if (!info || !discretionary(info)) return false;
    overrides()[code] = sev;
    return true;
}

bool DIAGNOSTIC::override_severity(const char* std_msg, dc_SEVERITY sev) {
    bool any = false;
    for (size_t i = 0; i < diag_info_count; ++i)
        if (std::strcmp(diag_info_table[i].std_msg, std_msg) == 0)
            any = override_severity(diag_info_table[i].code, sev) || any;
    return any;
}

void DIAGNOSTIC::override_severity(dc_SEVERITY from, dc_SEVERITY to) {
    for (size_t i = 0; i < diag_info_count; ++i)
        if (diag_info_table[i].severity == from) override_severity(diag_info_table[i].code, to);
}

void DIAGNOSTIC::clear_overrides() { overrides().clear(); }

void DIAGNOSTIC::push_debug_mode(bool on) {
    debug_mode_stack().push_back(debug_mode_m);
    debug_mode_m = on;
}
void DIAGNOSTIC::pop_debug_mode() {
    if (debug_mode_stack().empty()) return;
    debug_mode_m = debug_mode_stack().back();
    debug_mode_stack().pop_back();
}
void DIAGNOSTIC::push_indent(int level) {
    indent_stack().push_back(indent_m);
    indent_m = level;
}
void DIAGNOSTIC::pop_indent() {
    if (indent_stack().empty()) return;
    indent_m = indent_stack().back();
    indent_stack().pop_back();
}

bool DIAGNOSTIC::shown() const {
    if (suppressed_) return false;
    switch (severity()) {
    case dc_SUPPRESSED: return false;
    case dc_ADVICE: return advice_m;
    case dc_DEBUG: return debug_m;
    case dc_REMARK: return remarks_m;
    case dc_WARNING: return warnings_m;
    default: return true;
    }
}

void DIAGNOSTIC::emit(const char* s, size_t n) {
    FILE* out = out_m ? out_m : stderr;
    for (size_t i = 0; i < n; ++i) {
        if (s[i] == '\n') {
            column_ = 0;
        } else if (wrapping_ && wrap_enabled_m && column_ >= wrap_width_m && s[i] == ' ') {
            // Break at the first blank past the margin, continuing indented.
            std::fputc('\n', out);
            for (int k = 0; k <= indent_m; ++k) std::fputs("  ", out);
            column_ = 2 * (indent_m + 1);
            continue;
        } else {
            ++column_;
        }
        std::fputc(s[i], out);
    }
}

void DIAGNOSTIC::print_formatted(const std::string& text) { emit(text.data(), text.size()); }

void DIAGNOSTIC::print(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::string s = diag_vformat(fmt, ap);
    va_end(ap);
    flush();
    print_formatted(s);
}

std::string& DIAGNOSTIC::get_sp_buffer() { return pending_; }

void DIAGNOSTIC::sp_print(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    try {
        pending_ += diag_vformat(fmt, ap);
    } catch (const std::bad_alloc&) {
        std::fputs("OUT OF MEMORY - APPLICATION ABORTED\n", out_m ? out_m : stderr);
        std::exit(1);
    }
    va_end(ap);
}

void DIAGNOSTIC::flush() {
    if (!pending_.empty()) {
        std::string p;
        p.swap(pending_);
        print_formatted(p);
    }
    std::fflush(out_m ? out_m : stderr);
}

void DIAGNOSTIC::free_mem() {
    pending_.clear();
    pending_.shrink_to_fit();
}

void DIAGNOSTIC::start_new_line() {
    if (column_ != 0) emit("\n", 1);
}

std::string DIAGNOSTIC::srcinfo_str(const DIAG_SRCINFO* src) {
    if (!src) return {};
    std::string s = src->file() ? src->file() : "";
    s += ", line " + std::to_string(src->line());
    if (src->approximate()) s += " (approximate)";
    return s;
}

void DIAGNOSTIC::print_header() {
    if (!shown()) return;
    flush();
    bool saved = wrapping_;
    wrapping_ = wrap_headers_m;
    for (int i = 0; i < indent_m; ++i) print_formatted("  ");
    if (display_ipos_m || info_->internal) print("%s:%u:", file_, line_);
    if (src_) print("%s: ", srcinfo_str(src_).c_str());
    if (display_code_m || info_->internal)
        print("%s%s #%u%s: ", info_->internal ? "internal " : "", sev_str(), info_->code,
              is_discretionary() ? "-D" : "");
    else
        print("%s: ", sev_str());
    wrapping_ = saved;
}

void DIAGNOSTIC::show_annotated_source() {
    if (!src_ || !src_->file() || src_->line() == 0) return;
    std::ifstream in(src_->file());
    std::string text;
    for (unsigned long n = 0; n < src_->line() && std::getline(in, text); ++n) {
    }
    if (!in) return;
    print("%s\n", text.c_str());
    if (src_->column() > 0) print("%-*s^\n", static_cast<int>(src_->column() - 1), "");
}

void DIAGNOSTIC::report() {
    if (!shown()) return;
    print_header();
    print_formatted(text_);
    start_new_line();
    show_annotated_source();
    flush();
}

bool DIAGNOSTIC::is_equal(DIAGNOSTIC* other) {
    return other && other->info_ == info_ && other->text_ == text_ &&
           srcinfo_str(other->src_) == srcinfo_str(src_);
}

void DIAGNOSTIC::dump() {
    FILE* out = out_m ? out_m : stderr;
    std::fprintf(out, "Code : %d\n", static_cast<int>(info_->code));
    std::fprintf(out, "std_msg : %s\n", info_->std_msg);
    std::fprintf(out, "vrb_msg : %s\n", info_->vrb_msg ? info_->vrb_msg : "");
    std::fprintf(out, "File : %s\n", src_ && src_->file() ? src_->file() : "");
    std::fprintf(out, "Line : %d\n", src_ ? static_cast<int>(src_->line()) : 0);
    std::fprintf(out, "Column: %d\n", src_ ? static_cast<int>(src_->column()) : 0);
}

unsigned diag_error_count() { return error_count; }
void diag_reset_error_count() { error_count = 0; }

void diag_exit() {
    run_abnormal_exit_cleanup();
    std::exit(1);
}

void diag_count_error() {
    ++error_count;
    if (diag_error_limit != 0 && error_count >= diag_error_limit) {
        DIAG::max_errors d(DIAGNOSTIC::get_info(99900), __FILE__, __LINE__);
        d.set_text(format_text(d.info()->std_msg, error_count));
        d.report();
        diag_exit();
    }
}

dc_SEVERITY emit_diag(unsigned code, const char* file, unsigned line, const DIAG_SRCINFO* src, ...) {
    const DIAG_INFO* info = DIAGNOSTIC::get_info(static_cast<int>(code));
    if (!info) {
        // A message missing from the table is a defect of the tool itself.
        info = DIAGNOSTIC::get_info(99926);
        DIAG::gdie d(info, file, line, src);
        d.set_text("(unknown message code " + std::to_string(code) + ")");
        d.report();
        diag_exit();
    }
    DIAGNOSTIC d(info, file, line, src);
    va_list ap;
    va_start(ap, src);
    d.set_args(ap);
    va_end(ap);
    d.report();
    dc_SEVERITY sev = d.severity();
    if (sev >= dc_ERROR) diag_count_error();
    if (sev == dc_FATAL) diag_exit();
    return sev;
}
