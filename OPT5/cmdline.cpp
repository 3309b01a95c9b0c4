#include "OPT5/cmdline.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>

#include "DEBUG_DISABLE/register_option.h"
#include "DIAG/diag.h"
#include "DIAG/user_msg_api.h"
#include "OPT5/abort.h"
#include "OPT5/funinfo.h"
#include "OPT5/globals.h"
#include "OPT5/opt_client.h"
#include "UTIL/cleanup.h"

namespace {
const char THIS_MODULE[] = "OPT5/cmdline";

int arg_count = 0;
char** arg_vector = nullptr;
int arg_index = 0;
const char* program_name = "opt5";
bool output_opened = false;

// The output is written to a file of our own and becomes the named file only
// at a normal end, so that no partial output is ever seen and a failed run
// removes nothing but what it made.  A regular file (or none yet) is
// replaced by renaming the temporary file, made beside it, into its place; a
// device, pipe or socket gets the temporary file's contents copied into it.
struct OUTPUT_PLAN {
    std::string final_path;  // where the output goes, symbolic links followed
    std::string temp_path;   // the file written meanwhile (registered for removal)
    bool copy_at_end = false;
} output_plan;
}  // namespace

int alias_vars_option, inline_single, cache_sys_funinfo, code_is_reentrant, dump_ocg_in_GDL;
int dwim_aliases, dwim_loops, far_externs, kr_flag, memory_is_big_endian, memory_model;
int mini_mult, apply_symbolic_methods, pass_args_in_regs, program_mode, source_interlist;
int unsigned_index_wraps, unsigned_ok_for_RPTB, volit_vars, max_unrolled_loop_size;
int old_const_pointer_behavior, chars_alias_other_types, pointer_args_are_disjoint;
int loop_increments_are_not_zero, strict_fp, use_g2;
unsigned char aux_cmd_flag[10];
int ip_level = 0;
int processor_version = PELLIN_PROCESSOR_VERSION;

option_obj file_options(true);
std::vector<option_obj> all_option_sets;

FILE* input_file = nullptr;
FILE* output_file = nullptr;
FILE* info_stream = nullptr;
std::string input_file_name, output_file_name, debug_file_name;

void reset_global_flags() {
    alias_vars_option = 0;
    inline_single = 0;
    cache_sys_funinfo = 2;
    code_is_reentrant = 1;
    dump_ocg_in_GDL = 0;
    dwim_aliases = 0;
    dwim_loops = 0;
    far_externs = 0;
    kr_flag = 0;
    memory_is_big_endian = 0;
    memory_model = 0;
    mini_mult = 0;
    apply_symbolic_methods = 0;
    pass_args_in_regs = 0;
    program_mode = -1;
    source_interlist = 0;
    unsigned_index_wraps = 1;
    unsigned_ok_for_RPTB = 0;
    volit_vars = 0;
    max_unrolled_loop_size = 195;
    old_const_pointer_behavior = 0;
    chars_alias_other_types = 1;
    pointer_args_are_disjoint = 0;
    loop_increments_are_not_zero = 0;
    strict_fp = 1;
    use_g2 = 0;
    std::memset(aux_cmd_flag, 0, sizeof aux_cmd_flag);
}

namespace {

// Maps an enumerated argument through its table; -1 when the stored index
// is not one of the words (a set read from elsewhere than the command line).
int map_enumerated(const option_obj& o, option_id id, const int (&levels)[6], int absent) {
    if (!o.isset(id)) return absent;
    long long index = o.getnumarg(id, 0);
    return index >= 0 && index < 6 ? levels[index] : -1;
}

const int opt_level_map[6] = {0, 1, 2, 3, 4, 0};
const int goal_map[6] = {5, 0, 3, 2, 4, 1};

// The switches as the command line left them, put back after each function
// that has a set of its own.
std::map<std::string, int> command_line_switches;

// The numeric flags of a set: from the defaults, or (`overlay`) on top of the
// flags in force, changing only what the set gives.
void apply_option_flags(const option_obj& o, bool overlay = false) {
    if (!overlay) reset_global_flags();
    if (o.isset(OPT_opt_level) && map_enumerated(o, OPT_opt_level, opt_level_map, 1) < 0) {
        std::fprintf(stderr, "--opt_level given invalid value: %ld\n", static_cast<long>(o.getnumarg(OPT_opt_level, 0)));
        diag_exit();
    }
    if (o.isset(OPT_opt_for_speed) && map_enumerated(o, OPT_opt_for_speed, goal_map, 4) < 0) {
        std::fprintf(stderr, "--size_speed_goal given invalid value:  %ld\n",
                     static_cast<long>(o.getnumarg(OPT_opt_for_speed, 0)));
        diag_exit();
    }
    if (o.isset(OPT_ip_level)) ip_level = static_cast<int>(o.getnumarg(OPT_ip_level, 0));
    else if (!overlay) ip_level = 0;
    if (o.isset(OPT_volatile_all)) volit_vars = 1;
    if (o.isset(OPT_big_endian)) memory_is_big_endian = 1;
    if (o.isset(OPT_memory_model)) memory_model = o.getnumarg(OPT_memory_model, 0) == 0 ? 0 : 1;
    if (o.isset(OPT_unroll_limit)) max_unrolled_loop_size = static_cast<int>(o.getnumarg(OPT_unroll_limit, 0));
    if (o.isset(OPT_program_mode)) program_mode = 1;
    if (o.isset(OPT_nonreentrant)) code_is_reentrant = 0;
    if (o.isset(OPT_interlist)) source_interlist = 1;
    if (o.isset(OPT_strict_fp)) strict_fp = o.getnumarg(OPT_strict_fp, 0) == 0;
    for (unsigned i = 0; i < o.getargcount(OPT_aux_flags) && i < sizeof aux_cmd_flag; ++i)
        aux_cmd_flag[i] = static_cast<unsigned char>(o.getnumarg(OPT_aux_flags, i));
}

// How messages are shown and when errors end the run.
void apply_diagnostic_display(const option_obj& o) {
    for (unsigned i = 0; i < o.getargcount(OPT_diagnostics); ++i) {
        std::string w = o.getstrarg(OPT_diagnostics, i);
        if (w == "error_number") DIAGNOSTIC::display_code_m = true;
        else if (w == "source_position") DIAGNOSTIC::display_ipos_m = true;
        else if (w == "remarks") DIAGNOSTIC::remarks_m = true;
        else if (w == "advice") DIAGNOSTIC::advice_m = true;
        else if (w == "debug") DIAGNOSTIC::debug_m = true;
        else if (w == "no_warnings") DIAGNOSTIC::warnings_m = false;
        else if (w == "warnings_as_errors") USER_MSG::get_umsg_obj().emit_warnings_as_errors();
        else if (w == "wrap") DIAGNOSTIC::wrap_enabled_m = true;
    }
    if (o.isset(OPT_error_limit)) diag_error_limit = static_cast<unsigned>(o.getnumarg(OPT_error_limit, 0));
}

void apply_display_settings(const option_obj& o) {
    apply_diagnostic_display(o);
    if (o.isset(OPT_silicon_version)) {
        processor_version = static_cast<int>(o.getnumarg(OPT_silicon_version, 0));
        if (processor_version != PELLIN_PROCESSOR_VERSION) {
            std::string v = std::to_string(processor_version);
            emit_diag(24033, THIS_MODULE, __LINE__, nullptr, v.c_str());
        }
    }
}

[[noreturn]] void open_failure(const char* format, const std::string& name) {
    std::fprintf(stderr, format, name.c_str(), std::strerror(errno));
    discard_output();
    std::exit(1);
}

// Makes the temporary file that the output is written to; `in` is the
// input's status.
void open_output(const struct stat& in) {
    const char* cannot = "\n>> Cannot Open Output icode File, %s : %s, Aborting\n";
    struct stat out;
    bool exists = stat(output_file_name.c_str(), &out) == 0;
    if (exists && out.st_dev == in.st_dev && out.st_ino == in.st_ino) {
        std::fprintf(stderr, "\n>> The output icode file %s is the input file %s, Aborting\n",
                     output_file_name.c_str(), input_file_name.c_str());
        discard_output();
        std::exit(1);
    }
    if (exists && S_ISDIR(out.st_mode)) {
        errno = EISDIR;
        open_failure(cannot, output_file_name);
    }
    output_plan = OUTPUT_PLAN();
    output_plan.final_path = output_file_name;
    output_plan.copy_at_end = exists && !S_ISREG(out.st_mode);
    if (output_plan.copy_at_end) {
        if (access(output_file_name.c_str(), W_OK) != 0) open_failure(cannot, output_file_name);
        const char* tmp = std::getenv("TMPDIR");
        output_plan.temp_path = std::string(tmp && *tmp ? tmp : "/tmp") + "/opt5_output.XXXXXX";
    } else {
        char resolved[PATH_MAX];
        if (exists && realpath(output_file_name.c_str(), resolved)) output_plan.final_path = resolved;
        output_plan.temp_path = output_plan.final_path + ".XXXXXX";
    }
    // No signal between making the file and registering it for removal.
    sigset_t all, before;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    int fd = mkstemp(output_plan.temp_path.data());
    bool registered = fd >= 0 && register_temporary_file(output_plan.temp_path.c_str());
    int error = errno;
    if (fd >= 0 && !registered) {
        close(fd);
        unlink(output_plan.temp_path.c_str());
        error = ENAMETOOLONG;
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    if (!registered) open_failure(cannot, output_file_name);
    mode_t mask = umask(0);
    umask(mask);
    if (!output_plan.copy_at_end) fchmod(fd, exists ? (out.st_mode & 07777) : (0666 & ~mask));
    output_file = fdopen(fd, "wb");
    if (!output_file) open_failure(cannot, output_file_name);
    output_opened = true;
}

[[noreturn]] void output_failure(int error) { write_failure_exit("output icode file", output_file_name.c_str(), error); }

// The written output becomes the named file.  Signals are held from here to
// the exit, so that a run that has put its output in place ends normally.
void put_output_in_place() {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    const OUTPUT_PLAN& p = output_plan;
    if (!p.copy_at_end) {
        if (rename(p.temp_path.c_str(), p.final_path.c_str()) != 0) output_failure(errno);
        forget_temporary_file(p.temp_path.c_str());
        output_opened = false;
        return;
    }
    FILE* from = std::fopen(p.temp_path.c_str(), "rb");
    if (!from) output_failure(errno);
    FILE* to = std::fopen(p.final_path.c_str(), "wb");
    if (!to) {
        int e = errno;
        std::fclose(from);
        output_failure(e);
    }
    char buf[65536];
    size_t n;
    int error = 0;
    while (!error && (n = std::fread(buf, 1, sizeof buf, from)) > 0)
        if (std::fwrite(buf, 1, n, to) != n) error = errno ? errno : EIO;
    if (!error && std::ferror(from)) error = EIO;
    if (std::fclose(to) != 0 && !error) error = errno;
    std::fclose(from);
    if (error) output_failure(error);
    remove_temporary_files();
    output_opened = false;
}

}  // namespace

// The command line's set makes the flags; a function's set applies on top
// of them.
void set_global_flags(option_obj* options) {
    for (unsigned i = 0; i < options->getargcount(OPT_disable); ++i)
        process_debug_option("disable", options->getstrarg(OPT_disable, i));
    for (unsigned i = 0; i < options->getargcount(OPT_enable); ++i)
        process_debug_option("enable", options->getstrarg(OPT_enable, i));
    for (unsigned i = 0; i < options->getargcount(OPT_debug); ++i)
        process_debug_option("debug", options->getstrarg(OPT_debug, i));
    apply_display_settings(*options);
    apply_option_flags(file_options);
    if (options == &file_options) command_line_switches = register_option::get_state();
    else apply_option_flags(*options, true);
}

void restore_global_flags() {
    register_option::set_state(command_line_switches);
    apply_option_flags(file_options);
    if (print_debug && FDEBUG) {
        DBG_CHECK(std::fprintf(FDEBUG, "[Restoring options"));
        DBG_CHECK(std::fprintf(FDEBUG, " --> -o%d -i%d", opt_level(), ip_level));
        DBG_CHECK(std::fprintf(FDEBUG, " --opt_for_speed=%d", size_speed_goal()));
        DBG_CHECK(std::fprintf(FDEBUG, "]\n"));
    }
}

void init_fileopts() { all_option_sets.clear(); }

const option_obj& current_options() {
    if (currfuninfo && currfuninfo->option_set >= 0 &&
        static_cast<size_t>(currfuninfo->option_set) < all_option_sets.size())
        return all_option_sets[currfuninfo->option_set];
    return file_options;
}

// A function's set decides what it gives; the command line the rest.
int opt_level() {
    const option_obj& o = current_options().isset(OPT_opt_level) ? current_options() : file_options;
    return map_enumerated(o, OPT_opt_level, opt_level_map, 1);
}
int size_speed_goal() {
    const option_obj& o = current_options().isset(OPT_opt_for_speed) ? current_options() : file_options;
    return map_enumerated(o, OPT_opt_for_speed, goal_map, 4);
}

const char* next_arg() { return arg_index < arg_count ? arg_vector[arg_index++] : nullptr; }

void open_files(int argc, char** argv) {
    arg_count = argc;
    arg_vector = argv;
    arg_index = 1;
    if (argc > 0 && argv[0]) program_name = argv[0];
    set_abnormal_exit_cleanup(discard_output);

    // The options that say how messages are shown come first, so that they
    // govern the messages about the rest of the command line too.
    std::vector<bool> taken(static_cast<size_t>(argc), false);
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (!arg || (std::strncmp(arg, "--diagnostics", 13) != 0 && std::strncmp(arg, "--error_limit", 13) != 0)) continue;
        taken[static_cast<size_t>(i)] = true;
        const char* following = i + 1 < argc ? argv[i + 1] : nullptr;
        if (file_options.process_option(arg + 1, &following) > 0) taken[static_cast<size_t>(++i)] = true;
        apply_diagnostic_display(file_options);
    }

    std::vector<const char*> names;
    while (const char* arg = next_arg()) {
        if (taken[static_cast<size_t>(arg_index - 1)]) continue;
        if (arg[0] == '-' && arg[1]) {
            if (names.size() >= 2) {
                // Options must come before the file names.
                const char* a = next_arg();
                const char* b = a ? next_arg() : nullptr;
                std::fprintf(stderr, "\n>>>> OPTIMIZER ERROR: Unexpected options: %s %s %s\n", arg, a ? a : "",
                             b ? b : "");
                std::exit(1);
            }
            const char* following = arg_index < arg_count ? arg_vector[arg_index] : nullptr;
            if (file_options.process_option(arg + 1, &following) > 0) next_arg();
        } else {
            names.push_back(arg);
        }
    }
    if (diag_error_count() > 0) std::exit(1);
    if (names.size() > 2) {
        std::fputs("\n>>>> OPTIMIZER ERROR: Garbage on command line\n\n", stderr);
        std::exit(1);
    }
    if (names.size() < 2) {
        std::fprintf(stderr, "Usage: %s [-options] filename\n", program_name);
        std::exit(1);
    }

    set_global_flags(&file_options);

    input_file_name = names[0];
    output_file_name = names[1];
    input_file = std::fopen(input_file_name.c_str(), "rb");
    if (!input_file) open_failure("\n>> Cannot Open Input icode File, %s : %s, Aborting\n", input_file_name);
    struct stat st;
    if (fstat(fileno(input_file), &st) != 0 || S_ISDIR(st.st_mode)) {
        std::fprintf(stderr, "\n>> Error when opening input icode file : %s, Aborting\n", input_file_name.c_str());
        discard_output();
        std::exit(1);
    }
    open_output(st);

    if (file_options.isset(OPT_info_file)) {
        const char* name = file_options.getstrarg(OPT_info_file, 0);
        info_stream = std::fopen(name, "w");
        if (!info_stream) open_failure("\n>> Cannot Open Info File, %s : %s, Aborting\n", name);
        finfo = info_stream;
        write_opt_info = true;
    }
    if (file_options.isset(OPT_debug_file)) {
        debug_file_name = file_options.getstrarg(OPT_debug_file, 0);
        open_debug_file(debug_file_name.c_str());
        print_debug = true;
    }

    if (size_speed_goal() == 0) std::fputs("\n\t*** Optimizing code size, not speed ***\n\n", stderr);
    if (volit_vars) std::fputs("\n>>>> Warning: All non-auto lvalues are considered VOLATILE.\n\n", stderr);
}

FILE* open_debug_file(const char* name, bool append) {
    FILE* f = std::fopen(name, append ? "a" : "w");
    if (!f) open_failure("\n>> Cannot Open Debug File, %s : %s, Aborting\n", name);
    FILE* previous = FDEBUG;
    if (previous) DBG_CHECK(std::fprintf(previous, ">>>> SWITCHING LOG TO %s\n", name));
    FDEBUG = f;
    return previous;
}

void emit_cmd_line_text(FILE* out) {
    auto emit = [out](int n, const option_obj& o, const char* note) {
        std::fprintf(out, "Option set %d%s:\n", n, note);
        for (const std::string& s : o.export_option_list()) std::fprintf(out, "\t%s\n", s.c_str());
    };
    emit(0, file_options, " (file-level options)");
    for (size_t i = 0; i < all_option_sets.size(); ++i) emit(static_cast<int>(i + 1), all_option_sets[i], "");
}

void close_files() {
    if (FDEBUG) {
        DBG_CHECK(std::fprintf(FDEBUG, "\n== END OF DEBUG OUTPUT==\n"));
        if (std::fclose(FDEBUG) != 0) {
            int error = errno;
            FDEBUG = nullptr;
            print_debug = false;
            write_failure_exit("debug file", debug_file_name.c_str(), error);
        }
        FDEBUG = nullptr;
    }
    if (info_stream) {
        std::fprintf(info_stream, "\n== END OF INFO OUTPUT==\n");
        bool failed = std::fclose(info_stream) != 0;
        int error = errno;
        info_stream = nullptr;
        finfo = nullptr;
        if (failed) write_failure_exit("information file", file_options.getstrarg(OPT_info_file, 0), error);
    }
    if (input_file) {
        std::fclose(input_file);
        input_file = nullptr;
    }
    if (i_file) {
        delete i_file;
        i_file = nullptr;
    }
    if (o_file) {
        errno = 0;
        bool failed = o_file->if_close(true) != 0;
        int error = errno ? errno : EIO;
        delete o_file;
        o_file = nullptr;
        output_file = nullptr;
        if (failed) output_failure(error);
    }
    if (output_file) {
        bool failed = std::fclose(output_file) != 0;
        int error = errno;
        output_file = nullptr;
        if (failed) output_failure(error);
    }
    if (output_opened) put_output_in_place();
}

void discard_output() {
    if (o_file) {
        o_file->if_close(false, true);
        delete o_file;
        o_file = nullptr;
        output_file = nullptr;
    }
    if (input_file) {
        std::fclose(input_file);
        input_file = nullptr;
    }
    delete i_file;  // after its stream, which uses the I_FILE's buffer
    i_file = nullptr;
    if (output_file) {
        std::fclose(output_file);
        output_file = nullptr;
    }
    // Only the file this run made goes; the named output is left as it was.
    remove_temporary_files();
    output_opened = false;
}
