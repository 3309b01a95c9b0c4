// Parsed option sets.
//
// An option_obj holds one set of options: the command line's (the file-level
// set) or one of the per-function sets carried in the I-file.  Options are
// named by option_id only; their written forms live in the option table of
// optobj.cpp (see docs/options.md).
#pragma once

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

enum option_id {
    OPT_opt_level,        // --opt_level=W, -oW
    OPT_opt_for_speed,    // --opt_for_speed=W
    OPT_ip_level,         // --ip_level=N, -iN
    OPT_disable,          // --disable=LIST
    OPT_enable,           // --enable=LIST
    OPT_debug,            // --debug=LIST
    OPT_forced_passes,    // --forced_passes=SERIALS
    OPT_debug_file,       // --debug_file=FILE
    OPT_info_file,        // --info_file=FILE
    OPT_silicon_version,  // --silicon_version=N, -vN
    OPT_diagnostics,      // --diagnostics=WORDS
    OPT_error_limit,      // --error_limit=N
    OPT_volatile_all,     // --volatile_all
    OPT_big_endian,       // --big_endian
    OPT_little_endian,    // --little_endian
    OPT_memory_model,     // --memory_model=W
    OPT_unroll_limit,     // --unroll_limit=N
    OPT_program_mode,     // --program_mode
    OPT_nonreentrant,     // --nonreentrant
    OPT_strict_fp,        // --strict_fp=W
    OPT_aux_flags,        // --aux_flags=N,N,...
    OPT_interlist,        // --interlist
    OPT_COUNT
};

enum class_id {
    CLS_OPTIMIZE,   // optimisation level and goals
    CLS_SWITCHES,   // the switch lists and the pass order
    CLS_LISTINGS,   // debug and information files
    CLS_TARGET,     // processor and memory settings
    CLS_ENDIAN,     // byte order: its options exclude each other
    CLS_DIAG,       // diagnostic display
    CLS_CODEGEN,    // code-generation assumptions
};

enum parse_option_type {
    POT_NO_ARGS,
    POT_STRING,
    POT_NUMBER,
    POT_HEXNUM,
    POT_ENUMERATED,
    POT_STRING_LIST,
    POT_NUMBER_LIST,
    POT_ONEOF_LIST,
};

struct arg_range {
    bool enforced;
    long long lo, hi;
};

// Words of the two enumerations read by opt_level() and size_speed_goal(),
// in table order.
extern const char* const opt_level_words[6];
extern const char* const opt_for_speed_words[6];

class option_obj {
public:
    explicit option_obj(bool command_line = true);
    option_obj(const option_obj&) = default;
    option_obj& operator=(const option_obj&) = default;

    // Parses one argument given without its leading dash ("o2",
    // "-opt_level=2").  When the option needs a value and none is attached,
    // *next (if not null) is taken; returns the number of arguments taken
    // from *next (0 or 1).  Problems are reported as numbered diagnostics.
    int process_option(const char* text, const char** next);

    void setopt(option_id id);
    void clearopt(option_id id);
    void setopt(class_id cls);
    void clearopt(class_id cls);
    void setarg(option_id id, long long value);
    void setarg(option_id id, const char* value);

    bool isset(option_id id) const;          // given and not cleared
    bool parsed_option(option_id id) const;  // given (possibly cleared since)
    long long getnumarg(option_id id, unsigned index) const;
    const char* getstrarg(option_id id, unsigned index) const;
    unsigned getargcount(option_id id) const;

    static bool isclass(option_id id, class_id cls);
    bool testclass(class_id cls) const;  // an option of the class is set
    bool seenclass(class_id cls) const;  // an option of the class was given

    // The set options as (written name, argument text) pairs and as
    // command-line texts ("--opt_level=2").
    std::vector<std::pair<std::string, std::string>> export_option_pairs() const;
    std::vector<std::string> export_option_list() const;

    void print(FILE* out) const;
    void dump(FILE* out) const;
    void dump_history(FILE* out) const;

    // Takes from `base` every option this set was not given (set or
    // cleared): this set applies on top of `base`.
    void layer_over(const option_obj& base);

    // Compares this set with the set of an earlier file of the same build and
    // reports the differences (messages 24020 to 24023); returns the number
    // of differences that are errors.
    int do_merge_conflicts(const option_obj& earlier) const;

    static std::string rot13(std::string text);
    static const char* written_name(option_id id);  // "--opt_level"
    static parse_option_type kind(option_id id);

private:
    struct state {
        bool seen = false;
        bool enabled = false;
        std::vector<std::string> args;
        std::vector<long long> nums;
        std::vector<std::string> history;
    };
    std::vector<state> opts_;
    std::string source_;
    bool command_line_;

    std::string arg_text(option_id id) const;
    bool store_value(option_id id, const std::string& shown, const char* value);
    void record(option_id id, const std::string& how);
};
