// Diagnostic records: one static DIAG_INFO per message kind and one
// DIAGNOSTIC object per message emitted.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

enum dc_SEVERITY {
    dc_SUPPRESSED = 0,
    dc_NO_ERROR = 1,
    dc_ADVICE = 2,
    dc_DEBUG = 3,
    dc_REMARK = 4,
    dc_WARNING = 5,
    dc_ERROR = 6,
    dc_FATAL = 7,
};

const char* severity_word(int severity);

// vsnprintf into a string sized by a first formatting pass; a null format
// is taken as empty.
std::string diag_vformat(const char* fmt, va_list ap);

struct DIAG_INFO {
    unsigned code;
    const char* std_msg;
    const char* vrb_msg;
    dc_SEVERITY severity;
    bool internal;
    bool fixed;
};

// The message table (DIAG/diag_info.cpp), sorted by code.
extern const DIAG_INFO diag_info_table[];
extern const size_t diag_info_count;

// A source position attached to a message.
class DIAG_SRCINFO {
public:
    virtual ~DIAG_SRCINFO() = default;
    virtual const char* file() const = 0;
    virtual unsigned long line() const = 0;
    virtual unsigned long column() const = 0;
    virtual bool approximate() const = 0;
};

class DIAG_SRCINFO_DATA : public DIAG_SRCINFO {
public:
    DIAG_SRCINFO_DATA(std::string file, unsigned long line, unsigned long column = 0, bool approx = false)
        : file_(std::move(file)), line_(line), column_(column), approx_(approx) {}
    const char* file() const override { return file_.c_str(); }
    unsigned long line() const override { return line_; }
    unsigned long column() const override { return column_; }
    bool approximate() const override { return approx_; }

private:
    std::string file_;
    unsigned long line_, column_;
    bool approx_;
};

class DIAGNOSTIC {
public:
    DIAGNOSTIC(const DIAG_INFO* info, const char* file, unsigned line, const DIAG_SRCINFO* src = nullptr);
    virtual ~DIAGNOSTIC();
    virtual void report();
    virtual std::string& get_sp_buffer();
    virtual void free_mem();
    virtual bool is_equal(DIAGNOSTIC* other);
    virtual void dump();

    // Formats the table text of the message with the arguments given.
    void set_args(va_list ap);
    void set_text(std::string text) { text_ = std::move(text); }
    const std::string& text() const { return text_; }

    void print_header();
    void print(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void sp_print(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void print_formatted(const std::string& text);
    void flush();
    void start_new_line();
    void show_annotated_source();
    static std::string srcinfo_str(const DIAG_SRCINFO* src);
    const char* sev_str() const;
    dc_SEVERITY severity() const;
    bool is_discretionary() const;
    bool shown() const;
    void suppress() { suppressed_ = true; }
    void set_src(const DIAG_SRCINFO* src) { src_ = src; }
    const DIAG_INFO* info() const { return info_; }

    static const DIAG_INFO* get_info(int code);
    // Changes the severity of discretionary messages; false when refused.
    static bool override_severity(unsigned code, dc_SEVERITY sev);
    static bool override_severity(const char* std_msg, dc_SEVERITY sev);
    static void override_severity(dc_SEVERITY from, dc_SEVERITY to);
    static void clear_overrides();

    static void push_debug_mode(bool on);
    static void pop_debug_mode();
    static void push_indent(int level);
    static void pop_indent();

    // Display settings.
    static bool debug_m, remarks_m, warnings_m, advice_m;
    static bool display_code_m, display_ipos_m;
    static bool wrap_enabled_m, wrap_headers_m;
    static int indent_m;
    static bool debug_mode_m;
    static int wrap_width_m;
    // Where messages go (the standard error stream unless redirected).
    static FILE* out_m;

protected:
    const DIAG_INFO* info_;
    const char* file_;
    unsigned line_;
    const DIAG_SRCINFO* src_;
    std::string text_;
    std::string pending_;
    bool suppressed_ = false;
    bool wrapping_ = true;
    int column_ = 0;

    void emit(const char* s, size_t n);
};

namespace DIAG {
// One subclass per kind of user message; they share the reporting code and
// differ in the table entry they are built on.
class gdebug : public DIAGNOSTIC { using DIAGNOSTIC::DIAGNOSTIC; };
class gremark : public DIAGNOSTIC { using DIAGNOSTIC::DIAGNOSTIC; };
class gadvice : public DIAGNOSTIC { using DIAGNOSTIC::DIAGNOSTIC; };
class gwarning : public DIAGNOSTIC { using DIAGNOSTIC::DIAGNOSTIC; };
class gerror : public DIAGNOSTIC { using DIAGNOSTIC::DIAGNOSTIC; };
class gapperror : public DIAGNOSTIC { using DIAGNOSTIC::DIAGNOSTIC; };
class gfatal : public DIAGNOSTIC { using DIAGNOSTIC::DIAGNOSTIC; };
class gdie : public DIAGNOSTIC { using DIAGNOSTIC::DIAGNOSTIC; };
class max_errors : public DIAGNOSTIC { using DIAGNOSTIC::DIAGNOSTIC; };
}  // namespace DIAG

// Emits the table message `code`, its format filled from the arguments, at
// the table's (or the overridden) severity.  Errors are counted; a fatal
// error ends the run through diag_exit().  Returns the severity used.
dc_SEVERITY emit_diag(unsigned code, const char* file, unsigned line, const DIAG_SRCINFO* src, ...);
#define DIAG_EMIT(code, ...) emit_diag((code), __FILE__, __LINE__, nullptr, ##__VA_ARGS__)

// Count of messages of severity error or worse so far, and its limit
// (0 = none); reaching the limit emits message 99900 and ends the run.
unsigned diag_error_count();
void diag_count_error();
void diag_reset_error_count();
extern unsigned diag_error_limit;

// Ends the run after a fatal user message: runs the abnormal-exit cleanup
// (which removes partial output), then exits with status 1.
[[noreturn]] void diag_exit();
