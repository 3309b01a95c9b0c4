#include "IFILE/if_text.h"

#include <cctype>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>
#include <vector>

#include "IFILE/if_file.h"
#include "IFILE/if_node.h"
#include "IFILE/if_prim.h"

std::string if_text_quote(const std::string& s) {
        std::string q = "\"";
        for (unsigned char c : s) {
            if (c == '"' || c == '\\') {
                q += '\\';
                q += static_cast<char>(c);
            } else if (c >= 32 && c < 127) {
                q += static_cast<char>(c);
            } else {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\x%02x", c);
                q += buf;
            }
        }
        return q + "\"";
    }

namespace {

const char* const section_names[5] = {"options", "init", "types", "files", "globals"};

const std::map<int, const char*>& record_names() {
    static const std::map<int, const char*> names = {
        {1, "begin_func"},   {2, "end_func"},      {3, "begin_block"},     {4, "end_block"},
        {5, "end_args"},     {6, "end_locals"},    {34, "other_body"},     {35, "symbol"},
        {36, "asm"},         {38, "loop"},         {42, "label"},          {45, "mbank"},
        {46, "stmt"},        {47, "comment"},      {58, "dd_edge"},        {59, "dd_vector"},
        {64, "func_info"},   {93, "eht"},          {94, "pragma"},         {101, "node"},
        {105, "init"},       {108, "ldspec"},      {111, "option_set"},    {116, "type"},
        {123, "other_begin_func"}, {124, "loop_header"}, {125, "other_end_func"}, {126, "source"},
    };
    return names;
}

struct bad_input : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---------------------------------------------------------------------------
// Decoding a record body into tagged fields

struct decoder {
    explicit decoder(const std::vector<unsigned char>& body) : b(body) {}
    const std::vector<unsigned char>& b;
    size_t pos = 0;
    std::string out;

    unsigned u8() {
        if (pos >= b.size()) throw bad_input("short record");
        return b[pos++];
    }
    uint64_t uint_() {
        uint64_t v;
        if (!if_decode_uint(b.data(), b.size(), pos, v)) throw bad_input("bad number");
        return v;
    }
    int64_t sint_() {
        int64_t v;
        if (!if_decode_sint(b.data(), b.size(), pos, v)) throw bad_input("bad number");
        return v;
    }
    void field(const std::string& f) {
        out += ' ';
        out += f;
    }
    void tag(char t) {
        switch (t) {
        case 'b': field("b:" + std::to_string(u8())); break;
        case 'c': field("c:" + std::to_string(static_cast<signed char>(u8()))); break;
        case 'h': {
            unsigned lo = u8();
            field("h:" + std::to_string(lo | (u8() << 8)));
            break;
        }
        case 'w': {
            unsigned lo = u8();
            field("w:" + std::to_string(static_cast<int16_t>(lo | (u8() << 8))));
            break;
        }
        case 'n': field("n:" + std::to_string(uint_())); break;
        case 's': field("s:" + std::to_string(sint_())); break;
        case 'i': field("i:" + std::to_string(static_cast<int32_t>(sint_()))); break;
        case 'S': {
            const void* nul = std::memchr(b.data() + pos, 0, b.size() - pos);
            if (pos >= b.size() || !nul) throw bad_input("unterminated string");
            size_t n = static_cast<const unsigned char*>(nul) - (b.data() + pos);
            field("S:" + if_text_quote(std::string(reinterpret_cast<const char*>(b.data() + pos), n)));
            pos += n + 1;
            break;
        }
        case 'L': {
            uint64_t n = uint_();
            if (n > b.size() - pos) throw bad_input("short string");
            field("L:" + if_text_quote(std::string(reinterpret_cast<const char*>(b.data() + pos), static_cast<size_t>(n))));
            pos += static_cast<size_t>(n);
            break;
        }
        case 'P': {
            uint64_t file = uint_();
            if (file == 0) {
                field("P:0");
            } else {
                uint64_t line = uint_();
                uint64_t col = uint_();
                field("P:" + std::to_string(file) + ":" + std::to_string(line) + ":" + std::to_string(col));
            }
            break;
        }
        case 'R': {
            uint64_t scope = uint_();
            uint64_t index = uint_();
            field("R:" + std::to_string(scope) + ":" + std::to_string(index));
            break;
        }
        }
    }
    void tags(const char* t) {
        for (; *t; ++t) tag(*t);
    }
    std::string rest_raw() {
        std::string hex;
        char buf[4];
        for (; pos < b.size(); ++pos) {
            std::snprintf(buf, sizeof buf, "%02x", b[pos]);
            hex += buf;
        }
        return hex;
    }
};

// Signedness of the types of a file, for the encoding of ICON values.
struct type_signs {
    std::map<unsigned, std::pair<int, std::vector<long long>>> types;  // id -> code, numeric fields
    bool is_signed(unsigned id, int depth = 0) const {
        if (id == 0 || depth > 64) return true;
        auto it = types.find(id);
        if (it == types.end()) return true;  // builds no type: read as "no type"
        int code = it->second.first;
        const std::vector<long long>& f = it->second.second;
        auto base = [&](size_t i) { return static_cast<unsigned>(f.size() > i ? f[i] : 0); };
        if ((code >= 2 && code <= 11) || code == 52 || code == 53) return f[0] != 0;
        if (code >= 12 && code <= 14) return true;
        switch (code) {
        case 15: return base(2) ? is_signed(base(2), depth + 1) : true;   // fixed point
        case 16: return base(1) ? is_signed(base(1), depth + 1) : false;  // typedef
        case 19: return base(0) ? is_signed(base(0), depth + 1) : false;  // qualified
        case 20:  // an array answers for its element; a vector is not signed
            if (f.size() > 2 && (f[2] & 1)) return false;
            return base(0) ? is_signed(base(0), depth + 1) : false;
        case 24: return base(3) ? is_signed(base(3), depth + 1) : true;   // enumeration
        case 51:
        case 17: case 18: case 21: case 22: case 26: case 27: case 38: return false;
        default: return true;
        }
    }
};

std::string type_tags(int code) {
    const char* l = if_type_layout(code);
    if (!l) throw bad_input("unknown type code");
    std::string t;
    for (const char* p = l; *p; ++p) {
        switch (*p) {
        case 'b':
        case 'u': t += 'b'; break;
        case 'T': t += 'n'; break;
        default: t += *p;
        }
    }
    return t;
}

struct reader {
    FILE* in;
    std::vector<unsigned char> body;

    int next(uint64_t& size) {
        int id = std::fgetc(in);
        if (id == EOF) throw bad_input("unexpected end of file");
        size = 0;
        if (id == IR_END) return id;
        if (!if_read_uint(in, size)) throw bad_input("bad record size");
        body.clear();
        while (body.size() < size) {
            size_t chunk = static_cast<size_t>(std::min<uint64_t>(size - body.size(), 65536));
            size_t old = body.size();
            body.resize(old + chunk);
            if (std::fread(body.data() + old, 1, chunk, in) != chunk) throw bad_input("short record");
        }
        return id;
    }
};

void decode_fields(decoder& d, int id, int version, const type_signs& signs) {
    switch (id) {
    case 1: d.tags("Pn"); break;
    case 2: case 3: case 4: case 5: case 6: case 125: d.tags("P"); break;
    case 34: d.tags("P"); break;
    case 35: d.tags(version >= -71 ? "SnncwnnncnnPb" : "SnncwnnncnnP"); break;
    case 36: d.tags("SP"); break;
    case 38: d.tags("nnnnnh"); break;
    case 42: d.tags("n"); break;
    case 45: d.tags("nnnnn"); break;
    case 46: d.tags("P"); break;
    case 47: case 126: d.tags("S"); break;
    case 58: d.tags("nnn"); break;
    case 59: {
        size_t at = d.pos;
        uint64_t n = d.uint_();
        d.pos = at;
        d.tag('n');
        for (uint64_t i = 0; i < n; ++i) d.tag('s');
        break;
    }
    case 64: d.tags("c"); break;
    case 93: {
        size_t at = d.pos;
        uint64_t n = d.uint_();
        d.pos = at;
        d.tag('n');
        for (uint64_t i = 0; i < n; ++i) d.tags("bnnnn");
        break;
    }
    case 94:
    case 111: {
        d.tag('n');
        size_t at = d.pos;
        uint64_t n = d.uint_();
        d.pos = at;
        d.tag('n');
        for (uint64_t i = 0; i < n; ++i) d.tag('S');
        break;
    }
    case 101: {
        unsigned op = d.b.size() > d.pos ? d.b[d.pos] : 0;
        d.tag('b');
        size_t at = d.pos;
        unsigned type = static_cast<unsigned>(d.uint_());
        d.pos = at;
        d.tag('n');
        switch (op) {
        case 1: case 40: case 72: case 110: case 115: d.tags("n"); break;
        case 2: d.tags("R"); break;
        case 3: d.tags("L"); break;
        case 4: d.tags(signs.is_signed(type) ? "i" : "n"); break;
        case 5: case 25: case 129: case 130: case 132: case 133: d.tags("S"); break;
        case 26: d.tags("cnn"); break;
        case 70: d.tags("nn"); break;
        case 119: d.tags("nnb"); break;
        case 163: d.tags("s"); break;
        default: break;
        }
        break;
    }
    case 105: d.tags("n"); break;
    case 116: {
        d.tag('n');
        unsigned code = d.b.size() > d.pos ? d.b[d.pos] : 0;
        d.tag('b');
        std::string t = type_tags(static_cast<int>(code));
        for (size_t k = 0; k < t.size(); ++k) {
            size_t at = d.pos;
            d.tag(t[k]);
            if (code == IF_TYPE_MDATA && k == 3 && (d.b[at] & 1)) d.tags("nn");
        }
        break;
    }
    case 123: d.tags("nncnP"); break;
    case 124: d.tags("nssb"); break;
    default: break;
    }
}

// One record as a line; a body that does not decode cleanly is shown raw.
std::string record_line(int id, const std::vector<unsigned char>& body, int version, const type_signs& signs) {
    auto names = record_names();
    std::string name = names.count(id) ? names.at(id) : "rec" + std::to_string(id);
    decoder d{body};
    try {
        decode_fields(d, id, version, signs);
    } catch (const bad_input&) {
        d.pos = 0;
        d.out.clear();
    }
    std::string line = name + d.out;
    if (d.pos < body.size()) line += " x:" + d.rest_raw();
    if (id == 101 && !body.empty() && body[0] < IF_NODE_TABLE_SIZE && if_node_info[body[0]].name)
        line += std::string("  # ") + if_node_info[body[0]].name;
    return line;
}

void scan_types(FILE* in, long start, uint32_t offset, type_signs& signs) {
    if (!offset) return;
    long saved = std::ftell(in);
    std::fseek(in, start + offset, SEEK_SET);
    reader r{in, {}};
    try {
        for (;;) {
            uint64_t size;
            int id = r.next(size);
            if (id != IR_TYPE) break;
            decoder d{r.body};
            unsigned tid = static_cast<unsigned>(d.uint_());
            int code = static_cast<int>(d.u8());
            const char* l = if_type_layout(code);
            if (!l || !tid) continue;
            std::vector<long long> nums;
            for (const char* p = l; *p && nums.size() < 6; ++p) {
                if (*p == 'S') {
                    d.tag('S');
                    nums.push_back(0);
                } else if (*p == 'P') {
                    d.tag('P');
                    nums.push_back(0);
                } else if (*p == 's') {
                    nums.push_back(d.sint_());
                } else if (*p == 'b' || *p == 'u' || *p == 'c') {
                    nums.push_back(d.u8());
                } else {
                    nums.push_back(static_cast<long long>(d.uint_()));
                }
            }
            signs.types[tid] = {code, nums};
        }
    } catch (const bad_input&) {
    }
    std::fseek(in, saved, SEEK_SET);
}

// ---------------------------------------------------------------------------
// Encoding

struct encoder {
    std::vector<unsigned char> out;
    void u8(unsigned v) { out.push_back(static_cast<unsigned char>(v)); }
    void uint_(uint64_t v) { if_encode_uint(out, v); }
    void sint_(int64_t v) { if_encode_sint(out, v); }
};

struct text_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string unquote(const std::string& s, size_t& i) {
    if (i >= s.size() || s[i] != '"') throw text_error("expected a quoted string");
    ++i;
    std::string out;
    while (i < s.size() && s[i] != '"') {
        char c = s[i++];
        if (c != '\\') {
            out += c;
            continue;
        }
        if (i >= s.size()) break;
        char e = s[i++];
        switch (e) {
        case 'x':
            if (i + 2 > s.size() || !std::isxdigit(static_cast<unsigned char>(s[i])) ||
                !std::isxdigit(static_cast<unsigned char>(s[i + 1])))
                throw text_error("bad escape");
            out += static_cast<char>(std::stoi(s.substr(i, 2), nullptr, 16));
            i += 2;
            break;
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case 'r': out += '\r'; break;
        case '0': out += '\0'; break;
        case '"':
        case '\\': out += e; break;
        default: throw text_error(std::string("unknown escape \\") + e);
        }
    }
    if (i >= s.size()) throw text_error("unterminated string");
    ++i;
    return out;
}

long long number(const std::string& s, size_t& i) {
    size_t used = 0;
    long long v;
    try {
        if (s.compare(i, 2, "0x") == 0) v = static_cast<long long>(std::stoull(s.substr(i), &used, 16));
        else if (s[i] == '-') v = std::stoll(s.substr(i), &used, 10);
        else v = static_cast<long long>(std::stoull(s.substr(i), &used, 10));
    } catch (const std::exception&) {
        throw text_error("expected a number");
    }
    i += used;
    return v;
}

void expect(const std::string& s, size_t& i, char c) {
    if (i >= s.size() || s[i] != c) throw text_error(std::string("expected '") + c + "'");
    ++i;
}

// Encodes the fields of a record line, starting at s[i].
void encode_fields(const std::string& s, size_t i, encoder& e) {
    for (;;) {
        while (i < s.size() && s[i] == ' ') ++i;
        if (i >= s.size() || s[i] == '#') return;
        char t = s[i++];
        expect(s, i, ':');
        switch (t) {
        case 'b':
        case 'c': e.u8(static_cast<unsigned>(number(s, i)) & 0xFF); break;
        case 'h':
        case 'w': {
            unsigned v = static_cast<unsigned>(number(s, i)) & 0xFFFF;
            e.u8(v & 0xFF);
            e.u8(v >> 8);
            break;
        }
        case 'n': e.uint_(static_cast<uint64_t>(number(s, i))); break;
        case 's': e.sint_(number(s, i)); break;
        case 'i': e.sint_(static_cast<int32_t>(number(s, i))); break;
        case 'S': {
            std::string str = unquote(s, i);
            for (char c : str) e.u8(static_cast<unsigned char>(c));
            e.u8(0);
            break;
        }
        case 'L': {
            std::string str = unquote(s, i);
            e.uint_(str.size());
            for (char c : str) e.u8(static_cast<unsigned char>(c));
            break;
        }
        case 'P': {
            long long file = number(s, i);
            e.uint_(static_cast<uint64_t>(file));
            if (file) {
                expect(s, i, ':');
                e.uint_(static_cast<uint64_t>(number(s, i)));
                expect(s, i, ':');
                e.uint_(static_cast<uint64_t>(number(s, i)));
            }
            break;
        }
        case 'R': {
            e.uint_(static_cast<uint64_t>(number(s, i)));
            expect(s, i, ':');
            e.uint_(static_cast<uint64_t>(number(s, i)));
            break;
        }
        case 'x':
            while (i + 1 < s.size() && std::isxdigit(static_cast<unsigned char>(s[i]))) {
                e.u8(static_cast<unsigned>(std::stoi(s.substr(i, 2), nullptr, 16)));
                i += 2;
            }
            break;
        default: throw text_error(std::string("unknown field kind '") + t + "'");
        }
    }
}

void put_record(FILE* out, int id, const std::vector<unsigned char>& body) {
    encoder frame;
    frame.uint_(body.size());
    std::fputc(id, out);
    std::fwrite(frame.out.data(), 1, frame.out.size(), out);
    std::fwrite(body.data(), 1, body.size(), out);
}

std::vector<unsigned char> header_body(int version, int cpu, const uint32_t offsets[5], const std::string& source,
                                       uint32_t extra) {
    encoder e;
    for (const char* p = IF_MAGIC; *p; ++p) e.u8(static_cast<unsigned char>(*p));
    e.u8(0);
    e.u8(static_cast<unsigned>(version) & 0xFF);
    e.u8((static_cast<unsigned>(version) >> 8) & 0xFF);
    e.u8(static_cast<unsigned>(cpu) & 0xFF);
    e.u8((static_cast<unsigned>(cpu) >> 8) & 0xFF);
    for (int k = 0; k < 5; ++k)
        for (int j = 0; j < 4; ++j) e.u8((offsets[k] >> (8 * j)) & 0xFF);
    for (char c : source) e.u8(static_cast<unsigned char>(c));
    e.u8(0);
    if (version >= -83)
        for (int j = 0; j < 4; ++j) e.u8((extra >> (8 * j)) & 0xFF);
    return e.out;
}

}  // namespace

int ifdis(FILE* in, FILE* out, std::string& error) {
    if_node_table_init();
    long start = std::ftell(in);
    if (start < 0) start = 0;
    reader r{in, {}};
    try {
        uint64_t size;
        if (r.next(size) != IR_HEADER) throw bad_input("no header record");
        decoder d{r.body};
        for (const char* p = IF_MAGIC; *p; ++p)
            if (d.u8() != static_cast<unsigned char>(*p)) throw bad_input("bad magic");
        if (d.u8() != 0) throw bad_input("bad magic");
        unsigned lo = d.u8();
        int version = static_cast<int16_t>(lo | (d.u8() << 8));
        lo = d.u8();
        int cpu = static_cast<int16_t>(lo | (d.u8() << 8));
        uint32_t offsets[5];
        for (uint32_t& o : offsets) {
            o = 0;
            for (int j = 0; j < 4; ++j) o |= static_cast<uint32_t>(d.u8()) << (8 * j);
        }
        size_t src_start = d.pos;
        const void* nul = std::memchr(r.body.data() + d.pos, 0, r.body.size() - d.pos);
        if (!nul) throw bad_input("bad header");
        std::string source(reinterpret_cast<const char*>(r.body.data() + src_start),
                           static_cast<const unsigned char*>(nul) - (r.body.data() + src_start));
        d.pos += source.size() + 1;
        uint32_t extra = 0;
        if (version >= -83)
            for (int j = 0; j < 4; ++j) extra |= static_cast<uint32_t>(d.u8()) << (8 * j);
        if (d.pos != r.body.size()) throw bad_input("bad header");
        std::fprintf(out, ".header version=%d cpu=0x%x source=%s", version, static_cast<unsigned>(cpu) & 0xFFFF,
                     if_text_quote(source).c_str());
        if (version >= -83) std::fprintf(out, " extra=%u", extra);
        std::fputc('\n', out);

        type_signs signs;
        scan_types(in, start, offsets[2], signs);

        std::fputs(".section main\n", out);
        bool main_done = false;
        for (;;) {
            long at = std::ftell(in) - start;
            if (main_done) {
                int c = std::fgetc(in);
                if (c == EOF) break;
                std::ungetc(c, in);
                int which = -1;
                for (int k = 0; k < 5; ++k)
                    if (offsets[k] && offsets[k] == static_cast<uint32_t>(at)) which = k;
                if (which < 0) throw bad_input("data at offset " + std::to_string(at) + " belongs to no section");
                std::fprintf(out, ".section %s\n", section_names[which]);
            }
            for (;;) {
                int id = r.next(size);
                if (id == IR_END) {
                    std::fputs(".end\n", out);
                    break;
                }
                std::fprintf(out, "%s\n", record_line(id, r.body, version, signs).c_str());
            }
            main_done = true;
        }
    } catch (const bad_input& e) {
        error = std::string("ifdis: ") + e.what() + " at offset " + std::to_string(std::ftell(in) - start);
        return 1;
    }
    return 0;
}

int ifas(FILE* in, FILE* out, std::string& error) {
    std::map<std::string, int> ids;
    for (auto& [id, name] : record_names()) ids[name] = id;
    int version = 0, cpu = 0;
    std::string source;
    uint32_t extra = 0;
    uint32_t offsets[5] = {0, 0, 0, 0, 0};
    bool have_header = false;
    int line_no = 0;
    char* buf = nullptr;
    size_t cap = 0;
    ssize_t n;
    try {
        while ((n = getline(&buf, &cap, in)) >= 0) {
            ++line_no;
            std::string s(buf, static_cast<size_t>(n));
            while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
            size_t i = s.find_first_not_of(' ');
            if (i == std::string::npos || s[i] == '#') continue;
            size_t word_end = s.find(' ', i);
            std::string word = s.substr(i, word_end == std::string::npos ? std::string::npos : word_end - i);
            size_t rest = word_end == std::string::npos ? s.size() : word_end;
            if (word == ".header") {
                if (have_header) throw text_error("second .header");
                auto value = [&](const std::string& key) -> size_t {
                    size_t at = s.find(" " + key + "=");
                    if (at == std::string::npos) throw text_error("missing " + key);
                    return at + key.size() + 2;
                };
                size_t k = value("version");
                version = static_cast<int>(number(s, k));
                k = value("cpu");
                cpu = static_cast<int>(number(s, k));
                k = value("source");
                source = unquote(s, k);
                if (version >= -83) {
                    k = value("extra");
                    extra = static_cast<uint32_t>(number(s, k));
                }
                std::vector<unsigned char> h = header_body(version, cpu, offsets, source, extra);
                put_record(out, IR_HEADER, h);
                have_header = true;
                continue;
            }
            if (!have_header) throw text_error("the first line must be .header");
            if (word == ".section") {
                std::string name = s.substr(rest + 1);
                bool known = name == "main";
                for (int k = 0; k < 5; ++k)
                    if (name == section_names[k]) {
                        offsets[k] = static_cast<uint32_t>(std::ftell(out));
                        known = true;
                    }
                if (!known) throw text_error("unknown section " + name);
                continue;
            }
            if (word == ".end") {
                std::fputc(IR_END, out);
                continue;
            }
            int id;
            if (ids.count(word)) id = ids[word];
            else if (word.rfind("rec", 0) == 0) id = std::stoi(word.substr(3));
            else throw text_error("unknown record " + word);
            encoder e;
            encode_fields(s, rest, e);
            put_record(out, id, e.out);
        }
    } catch (const std::exception& e) {
        std::free(buf);
        error = "ifas: line " + std::to_string(line_no) + ": " + e.what();
        return 1;
    }
    std::free(buf);
    if (!have_header) {
        error = "ifas: no .header line";
        return 1;
    }
    // The header again, now with the offsets of the sections.
    long end = std::ftell(out);
    std::fseek(out, 0, SEEK_SET);
    put_record(out, IR_HEADER, header_body(version, cpu, offsets, source, extra));
    std::fseek(out, end, SEEK_SET);
    if (std::fflush(out) != 0) {
        error = "ifas: write failed";
        return 1;
    }
    return 0;
}
