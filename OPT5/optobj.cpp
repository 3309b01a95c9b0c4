#include "OPT5/optobj.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "DIAG/diag.h"

const char* const opt_level_words[6] = {"0", "1", "2", "3", "4", "off"};
const char* const opt_for_speed_words[6] = {"5", "0", "3", "2", "4", "1"};

namespace {

const char THIS_MODULE[] = "OPT5/optobj";

const char* const memory_model_words[] = {"small", "large", "huge"};
const char* const on_off_words[] = {"on", "off"};
const char* const diagnostics_words[] = {"error_number", "source_position", "remarks", "advice",
                                         "debug",        "no_warnings",     "warnings_as_errors", "wrap"};

struct OPTION_DESC {
    option_id id;
    const char* name;  // scrambled with option_obj::rot13
    char letter;       // short form "-<letter><value>", or 0
    parse_option_type type;
    class_id cls;
    arg_range range;
    const char* const* words;
    int nwords;
    const char* param;      // name of the parameter in messages
    bool persistent;
    int deprecated_word;    // index of a word kept only for old makefiles, or -1
    unsigned max_args;      // for list kinds: the most values in all, 0 = any
};

#define WORDS(w) w, static_cast<int>(sizeof w / sizeof w[0])
constexpr arg_range NO_RANGE{false, 0, 0};

// Names are stored scrambled; the plain written form stands in the comment.
const OPTION_DESC option_table[OPT_COUNT] = {
    {OPT_opt_level, "bcg_yriry", 'o', POT_ENUMERATED, CLS_OPTIMIZE, NO_RANGE, WORDS(opt_level_words), "level", false, -1, 0},  // opt_level
    {OPT_opt_for_speed, "bcg_sbe_fcrrq", 0, POT_ENUMERATED, CLS_OPTIMIZE, NO_RANGE, WORDS(opt_for_speed_words), "goal", false, -1, 0},  // opt_for_speed
    {OPT_ip_level, "vc_yriry", 'i', POT_NUMBER, CLS_OPTIMIZE, {true, 0, 3}, nullptr, 0, "level", false, -1, 0},  // ip_level
    {OPT_disable, "qvfnoyr", 0, POT_STRING_LIST, CLS_SWITCHES, NO_RANGE, nullptr, 0, "switches", false, -1, 0},  // disable
    {OPT_enable, "ranoyr", 0, POT_STRING_LIST, CLS_SWITCHES, NO_RANGE, nullptr, 0, "switches", false, -1, 0},  // enable
    {OPT_debug, "qroht", 0, POT_STRING_LIST, CLS_SWITCHES, NO_RANGE, nullptr, 0, "switches", false, -1, 0},  // debug
    {OPT_forced_passes, "sbeprq_cnffrf", 0, POT_STRING, CLS_SWITCHES, NO_RANGE, nullptr, 0, "serials", false, -1, 0},  // forced_passes
    {OPT_debug_file, "qroht_svyr", 0, POT_STRING, CLS_LISTINGS, NO_RANGE, nullptr, 0, "file", false, -1, 0},  // debug_file
    {OPT_info_file, "vasb_svyr", 0, POT_STRING, CLS_LISTINGS, NO_RANGE, nullptr, 0, "file", false, -1, 0},  // info_file
    {OPT_silicon_version, "fvyvpba_irefvba", 'v', POT_NUMBER, CLS_TARGET, NO_RANGE, nullptr, 0, "version", true, -1, 0},  // silicon_version
    {OPT_diagnostics, "qvntabfgvpf", 0, POT_ONEOF_LIST, CLS_DIAG, NO_RANGE, WORDS(diagnostics_words), "settings", false, -1, 0},  // diagnostics
    {OPT_error_limit, "reebe_yvzvg", 0, POT_NUMBER, CLS_DIAG, {true, 0, 100000}, nullptr, 0, "count", false, -1, 0},  // error_limit
    {OPT_volatile_all, "ibyngvyr_nyy", 0, POT_NO_ARGS, CLS_CODEGEN, NO_RANGE, nullptr, 0, "", false, -1, 0},  // volatile_all
    {OPT_big_endian, "ovt_raqvna", 0, POT_NO_ARGS, CLS_ENDIAN, NO_RANGE, nullptr, 0, "", false, -1, 0},  // big_endian
    {OPT_little_endian, "yvggyr_raqvna", 0, POT_NO_ARGS, CLS_ENDIAN, NO_RANGE, nullptr, 0, "", false, -1, 0},  // little_endian
    {OPT_memory_model, "zrzbel_zbqry", 0, POT_ENUMERATED, CLS_TARGET, NO_RANGE, WORDS(memory_model_words), "model", false, 2, 0},  // memory_model
    {OPT_unroll_limit, "haebyy_yvzvg", 0, POT_NUMBER, CLS_OPTIMIZE, {true, 0, 100000}, nullptr, 0, "size", false, -1, 0},  // unroll_limit
    {OPT_program_mode, "cebtenz_zbqr", 0, POT_NO_ARGS, CLS_OPTIMIZE, NO_RANGE, nullptr, 0, "", false, -1, 0},  // program_mode
    {OPT_nonreentrant, "abaerragenag", 0, POT_NO_ARGS, CLS_CODEGEN, NO_RANGE, nullptr, 0, "", false, -1, 0},  // nonreentrant
    {OPT_strict_fp, "fgevpg_sc", 0, POT_ENUMERATED, CLS_CODEGEN, NO_RANGE, WORDS(on_off_words), "mode", false, -1, 0},  // strict_fp
    {OPT_aux_flags, "nhk_syntf", 0, POT_NUMBER_LIST, CLS_CODEGEN, {true, 0, 255}, nullptr, 0, "bytes", false, -1, 10},  // aux_flags
    {OPT_interlist, "vagreyvfg", 0, POT_NO_ARGS, CLS_CODEGEN, NO_RANGE, nullptr, 0, "", false, -1, 0},  // interlist
};
#undef WORDS

const OPTION_DESC& desc(option_id id) { return option_table[id]; }

const OPTION_DESC* find_long(const std::string& plain) {
    std::string scrambled = option_obj::rot13(plain);
    for (const OPTION_DESC& d : option_table)
        if (scrambled == d.name) return &d;
    return nullptr;
}

const OPTION_DESC* find_short(char letter) {
    for (const OPTION_DESC& d : option_table)
        if (d.letter == letter) return &d;
    return nullptr;
}

bool is_list(parse_option_type t) {
    return t == POT_STRING_LIST || t == POT_NUMBER_LIST || t == POT_ONEOF_LIST;
}

std::string join_words(const OPTION_DESC& d) {
    std::string s;
    for (int i = 0; i < d.nwords; ++i) {
        if (i) s += ",";
        s += d.words[i];
    }
    return s;
}

int find_word(const OPTION_DESC& d, const std::string& w) {
    for (int i = 0; i < d.nwords; ++i)
        if (w == d.words[i]) return i;
    return -1;
}

std::vector<std::string> split_commas(const std::string& s) {
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        size_t comma = s.find(',', start);
        out.push_back(s.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (comma == std::string::npos) return out;
        start = comma + 1;
    }
}

// Reads a whole number in the given base; false when the text is not one.
bool read_number(const std::string& text, int base, long long& out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    if (base == 16) {
        unsigned long long u = std::strtoull(text.c_str(), &end, 16);
        out = static_cast<long long>(u);
    } else {
        out = std::strtoll(text.c_str(), &end, base);
    }
    return errno == 0 && end && *end == '\0';
}

const char* kind_word(parse_option_type t) {
    switch (t) {
    case POT_NO_ARGS: return "NO ARGS";
    case POT_STRING: return "STRING ARG:";
    case POT_NUMBER: return "NUMBER ARG:";
    case POT_HEXNUM: return "HEXNUM ARG:";
    case POT_ENUMERATED: return "ENUMERATED ARG:";
    case POT_STRING_LIST: return "STRING LIST ARG:";
    case POT_NUMBER_LIST: return "NUMBER LIST ARG:";
    case POT_ONEOF_LIST: return "ONEOF LIST ARG:";
    }
    return "?";
}

}  // namespace

std::string option_obj::rot13(std::string text) {
    for (char& c : text) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>('a' + (c - 'a' + 13) % 26);
        else if (c >= 'A' && c <= 'Z') c = static_cast<char>('A' + (c - 'A' + 13) % 26);
    }
    return text;
}

const char* option_obj::written_name(option_id id) {
    static std::vector<std::string> names = [] {
        std::vector<std::string> v;
        for (const OPTION_DESC& d : option_table) v.push_back("--" + rot13(d.name));
        return v;
    }();
    return names[id].c_str();
}

parse_option_type option_obj::kind(option_id id) { return desc(id).type; }

option_obj::option_obj(bool command_line)
    : opts_(OPT_COUNT), source_(command_line ? "command line" : "option set"), command_line_(command_line) {}

void option_obj::record(option_id id, const std::string& how) {
    opts_[id].history.push_back(source_ + ": " + how);
}

std::string option_obj::arg_text(option_id id) const {
    const state& s = opts_[id];
    const OPTION_DESC& d = desc(id);
    std::string out;
    unsigned n = getargcount(id);
    for (unsigned i = 0; i < n; ++i) {
        if (i) out += ",";
        if (i < s.args.size()) out += s.args[i];
        else if (d.type == POT_HEXNUM) {
            char buf[32];
            std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(s.nums[i]));
            out += buf;
        } else out += std::to_string(s.nums[i]);
    }
    return out;
}

// Checks and stores the value of an option that takes one; `shown` is the
// option as the user wrote it, for messages.  False when it was refused.
bool option_obj::store_value(option_id id, const std::string& shown, const char* value) {
    const OPTION_DESC& d = desc(id);
    state& s = opts_[id];
    const char* name = written_name(id);
    std::string text = value ? value : "";
    // An empty forced order is an order: no step runs.
    if (text.empty() && id != OPT_forced_passes) {
        emit_diag(24010, THIS_MODULE, __LINE__, nullptr, name, d.param);
        return false;
    }
    std::vector<std::string> new_args;
    std::vector<long long> new_nums;
    switch (d.type) {
    case POT_NO_ARGS: return true;
    case POT_STRING:
    case POT_STRING_LIST: new_args.push_back(text); break;
    case POT_NUMBER:
    case POT_HEXNUM:
    case POT_NUMBER_LIST: {
        auto items = d.type == POT_NUMBER_LIST ? split_commas(text) : std::vector<std::string>{text};
        for (const std::string& item : items) {
            long long v;
            if (!read_number(item, d.type == POT_HEXNUM ? 16 : (d.type == POT_NUMBER_LIST ? 0 : 10), v)) {
                emit_diag(24012, THIS_MODULE, __LINE__, nullptr, name, item.c_str());
                return false;
            }
            if (d.range.enforced && (v < d.range.lo || v > d.range.hi)) {
                emit_diag(24011, THIS_MODULE, __LINE__, nullptr, name, item.c_str());
                return false;
            }
            new_nums.push_back(v);
        }
        break;
    }
    case POT_ENUMERATED:
    case POT_ONEOF_LIST: {
        auto items = d.type == POT_ONEOF_LIST ? split_commas(text) : std::vector<std::string>{text};
        for (const std::string& item : items) {
            int w = find_word(d, item);
            if (w < 0) {
                emit_diag(24015, THIS_MODULE, __LINE__, nullptr, name, join_words(d).c_str());
                return false;
            }
            if (w == d.deprecated_word)
                std::fprintf(stderr,
                             "WARNING: argument '%s' to option '%s' is deprecated and will be removed in a "
                             "future release\n",
                             item.c_str(), name);
            new_args.push_back(item);
            new_nums.push_back(w);
        }
        break;
    }
    }
    if (is_list(d.type)) {
        size_t total = std::max(s.args.size(), s.nums.size()) + std::max(new_args.size(), new_nums.size());
        if (d.max_args && total > d.max_args) {
            emit_diag(24011, THIS_MODULE, __LINE__, nullptr, name, text.c_str());
            return false;
        }
        s.args.insert(s.args.end(), new_args.begin(), new_args.end());
        s.nums.insert(s.nums.end(), new_nums.begin(), new_nums.end());
    } else {
        s.args = std::move(new_args);
        s.nums = std::move(new_nums);
    }
    record(id, "set by " + shown);
    return true;
}

int option_obj::process_option(const char* text, const char** next) {
    std::string shown = std::string("-") + text;
    const OPTION_DESC* d = nullptr;
    std::string value;
    bool has_value = false;
    int taken = 0;

    if (text[0] == '-') {
        std::string body = text + 1;
        size_t eq = body.find('=');
        std::string name = body.substr(0, eq);
        has_value = eq != std::string::npos;
        if (has_value) value = body.substr(eq + 1);
        d = find_long(name);
        if (!d && name.rfind("no_", 0) == 0) {
            if (const OPTION_DESC* neg = find_long(name.substr(3))) {
                if (has_value) emit_diag(24019, THIS_MODULE, __LINE__, nullptr, text);
                clearopt(neg->id);
                return 0;
            }
        }
    } else {
        d = find_short(text[0]);
        if (d && text[1]) {
            has_value = true;
            value = text + 1;
        }
    }
    if (!d) {
        emit_diag(6006, THIS_MODULE, __LINE__, nullptr, shown.c_str());
        return 0;
    }
    option_id id = d->id;
    // The files and the step order are the run's: the command line sets
    // them before any function is read.
    if (!command_line_ && (d->cls == CLS_LISTINGS || id == OPT_forced_passes)) {
        emit_diag(24017, THIS_MODULE, __LINE__, nullptr, written_name(id), "in an I-file", "option set");
        return 0;
    }
    if (d->type == POT_NO_ARGS) {
        if (has_value) emit_diag(24019, THIS_MODULE, __LINE__, nullptr, text);
    } else if (!has_value && next && *next) {
        value = *next;
        shown += " " + value;
        taken = 1;
    }

    if (d->cls == CLS_ENDIAN) {
        for (const OPTION_DESC& other : option_table)
            if (other.cls == CLS_ENDIAN && other.id != id && opts_[other.id].enabled)
                emit_diag(24002, THIS_MODULE, __LINE__, nullptr, written_name(id), written_name(other.id));
    }
    state& s = opts_[id];
    if (d->type == POT_NO_ARGS) {
        record(id, "set by " + shown);
    } else {
        std::string previous = s.enabled && !is_list(d->type) ? std::string(written_name(id)) + "=" + arg_text(id) : "";
        if (!store_value(id, shown, value.c_str())) return taken;
        std::string now = std::string(written_name(id)) + "=" + arg_text(id);
        if (!previous.empty() && previous != now)
            emit_diag(24003, THIS_MODULE, __LINE__, nullptr, now.c_str(), previous.c_str());
    }
    s.seen = s.enabled = true;
    return taken;
}

void option_obj::setopt(option_id id) {
    opts_[id].seen = opts_[id].enabled = true;
    record(id, "set");
}

void option_obj::clearopt(option_id id) {
    const OPTION_DESC& d = desc(id);
    state& s = opts_[id];
    if (d.persistent) {
        emit_diag(24006, THIS_MODULE, __LINE__, nullptr, written_name(id));
        return;
    }
    if (s.enabled) {
        std::string neg = std::string("--no_") + (written_name(id) + 2);
        std::string previous = written_name(id);
        if (d.type != POT_NO_ARGS) previous += "=" + arg_text(id);
        emit_diag(24004, THIS_MODULE, __LINE__, nullptr, neg.c_str(), previous.c_str());
    }
    s.seen = true;
    s.enabled = false;
    s.args.clear();
    s.nums.clear();
    record(id, "cleared");
}

void option_obj::setopt(class_id cls) {
    for (const OPTION_DESC& d : option_table)
        if (d.cls == cls) setopt(d.id);
}

void option_obj::clearopt(class_id cls) {
    for (const OPTION_DESC& d : option_table)
        if (d.cls == cls) clearopt(d.id);
}

void option_obj::setarg(option_id id, long long value) {
    state& s = opts_[id];
    const OPTION_DESC& d = desc(id);
    s.args.clear();
    s.nums.assign(1, value);
    if ((d.type == POT_ENUMERATED || d.type == POT_ONEOF_LIST) && value >= 0 && value < d.nwords)
        s.args.push_back(d.words[value]);
    else if (d.type == POT_STRING || d.type == POT_STRING_LIST)
        s.args.push_back(std::to_string(value));
    s.seen = s.enabled = true;
    record(id, "argument set to " + std::to_string(value));
}

void option_obj::setarg(option_id id, const char* value) {
    state& s = opts_[id];
    s.args.assign(1, value ? value : "");
    s.nums.clear();
    long long v;
    if (read_number(s.args[0], desc(id).type == POT_HEXNUM ? 16 : 0, v)) s.nums.push_back(v);
    s.seen = s.enabled = true;
    record(id, std::string("argument set to ") + (value ? value : ""));
}

bool option_obj::isset(option_id id) const { return opts_[id].enabled; }
bool option_obj::parsed_option(option_id id) const { return opts_[id].seen; }

long long option_obj::getnumarg(option_id id, unsigned index) const {
    const state& s = opts_[id];
    return index < s.nums.size() ? s.nums[index] : 0;
}

const char* option_obj::getstrarg(option_id id, unsigned index) const {
    const state& s = opts_[id];
    return index < s.args.size() ? s.args[index].c_str() : nullptr;
}

unsigned option_obj::getargcount(option_id id) const {
    const state& s = opts_[id];
    return static_cast<unsigned>(std::max(s.args.size(), s.nums.size()));
}

bool option_obj::isclass(option_id id, class_id cls) { return desc(id).cls == cls; }

bool option_obj::testclass(class_id cls) const {
    for (const OPTION_DESC& d : option_table)
        if (d.cls == cls && opts_[d.id].enabled) return true;
    return false;
}

bool option_obj::seenclass(class_id cls) const {
    for (const OPTION_DESC& d : option_table)
        if (d.cls == cls && opts_[d.id].seen) return true;
    return false;
}

std::vector<std::pair<std::string, std::string>> option_obj::export_option_pairs() const {
    std::vector<std::pair<std::string, std::string>> out;
    for (const OPTION_DESC& d : option_table) {
        if (!opts_[d.id].enabled) continue;
        if (is_list(d.type)) {
            // Each occurrence of a list option is an argument of its own.
            for (unsigned i = 0; i < opts_[d.id].args.size(); ++i)
                out.emplace_back(written_name(d.id), opts_[d.id].args[i]);
            if (opts_[d.id].args.empty() && !opts_[d.id].nums.empty())
                out.emplace_back(written_name(d.id), arg_text(d.id));
        } else {
            out.emplace_back(written_name(d.id), arg_text(d.id));
        }
    }
    return out;
}

std::vector<std::string> option_obj::export_option_list() const {
    std::vector<std::string> out;
    for (auto& [name, arg] : export_option_pairs()) out.push_back(arg.empty() ? name : name + "=" + arg);
    return out;
}

void option_obj::print(FILE* out) const {
    bool first = true;
    for (const std::string& s : export_option_list()) {
        std::fprintf(out, "%s%s", first ? "" : " ", s.c_str());
        first = false;
    }
    std::fputc('\n', out);
}

void option_obj::dump(FILE* out) const {
    for (const OPTION_DESC& d : option_table) {
        const state& s = opts_[d.id];
        std::fprintf(out, "%-20s %s%s%s", written_name(d.id), s.seen ? "SEEN      " : "not seen  ",
                     s.enabled ? "ENABLED   " : "disabled  ", kind_word(d.type));
        if (d.type != POT_NO_ARGS) {
            std::string args = arg_text(d.id);
            std::fprintf(out, " %s", args.empty() ? "<arg not provided>" : args.c_str());
        }
        std::fputc('\n', out);
    }
}

void option_obj::dump_history(FILE* out) const {
    for (const OPTION_DESC& d : option_table)
        for (const std::string& h : opts_[d.id].history) std::fprintf(out, "%s: %s\n", written_name(d.id), h.c_str());
}

void option_obj::layer_over(const option_obj& base) {
    for (const OPTION_DESC& d : option_table)
        if (!opts_[d.id].seen) opts_[d.id] = base.opts_[d.id];
}

int option_obj::do_merge_conflicts(const option_obj& earlier) const {
    int errors = 0;
    for (const OPTION_DESC& d : option_table) {
        // The switch lists and the listings may differ from file to file.
        if (d.cls == CLS_SWITCHES || d.cls == CLS_LISTINGS) continue;
        bool now = opts_[d.id].enabled, before = earlier.opts_[d.id].enabled;
        const char* name = written_name(d.id);
        if (d.cls == CLS_ENDIAN) {
            for (const OPTION_DESC& o : option_table)
                if (o.cls == CLS_ENDIAN && o.id != d.id && now && earlier.opts_[o.id].enabled) {
                    emit_diag(24022, THIS_MODULE, __LINE__, nullptr, name, written_name(o.id));
                    ++errors;
                }
            continue;
        }
        if (before && !now) {
            emit_diag(24020, THIS_MODULE, __LINE__, nullptr, name);
        } else if (now && !before) {
            emit_diag(24021, THIS_MODULE, __LINE__, nullptr, name);
        } else if (now && before && arg_text(d.id) != earlier.arg_text(d.id)) {
            std::string a = std::string(name) + "=" + arg_text(d.id);
            std::string b = std::string(name) + "=" + earlier.arg_text(d.id);
            emit_diag(24023, THIS_MODULE, __LINE__, nullptr, a.c_str(), b.c_str());
            ++errors;
        }
    }
    return errors;
}
