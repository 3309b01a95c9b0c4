// The record layer read and written through its own interface.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <deque>
#include <memory>

#include "IFILE/if_file.h"
#include "IFILE/if_prim.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "recorder.h"
#include "test_util.h"

namespace {

std::string header(int version, const char* cpu = "0x258") {
    std::string h = ".header version=" + std::to_string(version) + " cpu=" + cpu + " source=\"t.c\"";
    if (version >= -83) h += " extra=7";
    return h + "\n";
}

// Types shared by the tests below: 1 int, 2 float, 3 a function of no
// parameters returning int.
const char* const types = R"(.section types
type n:1 b:8 b:1 n:16 n:16 b:0 b:0
type n:2 b:12 n:32 n:32
type n:3 b:22 n:1 b:1 b:0 b:0 b:0
.end
.section files
source S:"t.c"
.end
)";

class IFile : public ::testing::Test {
protected:
    void SetUp() override {
        init_opcode_tables();
        init_types();
    }
    // Assembles the text and opens it for reading.
    I_FILE* open(const std::string& text) {
        std::string err = assemble(text, dir.path / "t.if");
        EXPECT_EQ(err, "");
        in = std::fopen((dir.path / "t.if").c_str(), "rb");
        return I_FILE::if_open(in, &client);
    }
    void TearDown() override {
        if (in) std::fclose(in);
    }
    TempDir dir;
    Recorder client;
    FILE* in = nullptr;
};

TEST_F(IFile, HeaderVersionAndProcessorChecks) {
    for (int v : {-87, -70}) {
        EXPECT_EQ(open(header(v) + ".section main\n.end\n"), nullptr) << v;
        std::fclose(in);
        in = nullptr;
    }
    EXPECT_EQ(open(header(-71, "0x259") + ".section main\n.end\n"), nullptr);
    std::fclose(in);
    in = nullptr;
    client.accept = false;
    EXPECT_EQ(open(header(-71) + ".section main\n.end\n"), nullptr);
    std::fclose(in);
    in = nullptr;
    client.accept = true;
    for (int v : {-86, -84, -83, -71}) {
        std::unique_ptr<I_FILE> f(open(header(v) + ".section main\n.end\n"));
        ASSERT_NE(f, nullptr) << v;
        EXPECT_EQ(f->version, v);
        EXPECT_EQ(f->extra_word, v >= -83 ? 7u : 0u) << v;  // -84 has no extra word
        EXPECT_EQ(f->source, "t.c");
        std::fclose(in);
        in = nullptr;
    }
}

TEST_F(IFile, SintReadingRule) {
    std::vector<unsigned char> bytes;
    if_encode_sint(bytes, -1);
    EXPECT_EQ(bytes.size(), 1u);
    size_t pos = 0;
    int64_t v;
    ASSERT_TRUE(if_decode_sint(bytes.data(), bytes.size(), pos, v));
    EXPECT_EQ(v, -1);
    bytes.clear();
    if_encode_sint(bytes, -100000);  // three bytes, sign-extended on reading
    pos = 0;
    ASSERT_TRUE(if_decode_sint(bytes.data(), bytes.size(), pos, v));
    EXPECT_EQ(v, -100000);
    bytes.clear();
    if_encode_sint(bytes, 0xFFFFFFFFLL);  // the pattern of a VREG id of -1
    EXPECT_EQ(bytes.size(), 5u);
    pos = 0;
    ASSERT_TRUE(if_decode_sint(bytes.data(), bytes.size(), pos, v));
    EXPECT_EQ(v, 0xFFFFFFFFLL);
    EXPECT_EQ(static_cast<int32_t>(v), -1);
    bytes = {0x80, 0x80};  // runs out
    pos = 0;
    EXPECT_FALSE(if_decode_sint(bytes.data(), bytes.size(), pos, v));
}

TEST_F(IFile, NodesPayloadsAndFloatingComparisons) {
    std::unique_ptr<I_FILE> f(open(header(-71) + R"(.section main
begin_func P:0 n:0
stmt P:1:2:3
node b:81 n:1
node b:4 n:2 i:1
node b:4 n:2 i:2
stmt P:0
node b:87 n:1
node b:4 n:1 i:-5
node b:4 n:2 i:3
stmt P:0
node b:80 n:1
node b:4 n:1 i:-1
node b:163 n:1 s:4294967295
stmt P:0
node b:25 n:1 S:"65537"
end_func P:0
.end
)" + types + R"(.section globals
symbol S:"f" n:0 n:0 c:0 w:0 n:3 n:0 n:16 c:0 n:0 n:0 P:0 b:0
.end
)"));
    ASSERT_NE(f, nullptr);
    f->if_read_file();
    ASSERT_EQ(client.trees.size(), 4u);
    EXPECT_EQ(client.trees[0]->opcode, FNEQN);  // NEQ of floats
    EXPECT_EQ(client.trees[1]->opcode, FLT);    // ULT with one float operand
    EXPECT_EQ(client.trees[1]->left->value, INT65(-5));
    EXPECT_EQ(client.trees[2]->opcode, EQ);     // integers stay
    EXPECT_EQ(client.trees[2]->right->vreg_id(), -1);
    EXPECT_EQ(client.trees[3]->opcode, ICON);   // LCON is read as a truncated ICON
    EXPECT_EQ(client.trees[3]->value, INT65(1));
    EXPECT_EQ(client.events.front(), "source t.c");
}

TEST_F(IFile, SymbolsWidenAndTakeTheirPragmas) {
    std::unique_ptr<I_FILE> f(open(header(-72) + R"(.section main
.end
)" + types + R"(.section globals
symbol S:"w" n:22 n:0 c:0 w:0 n:1 n:0 n:16 c:2 n:0 n:0 P:1:4:1
pragma n:1 n:1 S:"C"
pragma n:6 n:0
symbol S:"f" n:0 n:0 c:0 w:0 n:3 n:0 n:16 c:0 n:0 n:0 P:0
.end
)"));
    ASSERT_NE(f, nullptr);
    f->if_read_file();
    ASSERT_EQ(f->globals.size(), 2u);
    EXPECT_EQ(f->globals[0]->size, 32u);
    EXPECT_EQ(f->globals[0]->align, 32u);
    EXPECT_EQ(f->globals[0]->pos.line, 4u);
    EXPECT_STREQ(f->globals[0]->pos.file, "t.c");
    EXPECT_EQ(f->globals[1]->index, 1u);
    EXPECT_EQ(client.events, (std::vector<std::string>{"source t.c", "pragma 1 of w", "pragma 6 of w",
                                                       "symbol w pragmas 2", "symbol f pragmas 0"}));
}

TEST_F(IFile, LengthCheckAndUnknownRecords) {
    std::unique_ptr<I_FILE> f(open(header(-71) + ".section main\ncomment S:\"hi\"\nrec200 x:0102\n.end\n"));
    ASSERT_NE(f, nullptr);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(f->if_check_lengths());
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind(">>I-file error:@", 0), 0u);
    testing::internal::CaptureStderr();
    EXPECT_EQ(f->if_read_record(), IR_COMMENT);
    EXPECT_EQ(f->if_read_record(), 200);
    EXPECT_EQ(f->if_read_record(), IR_END);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("\n///ERROR @0x"), std::string::npos) << err;
    EXPECT_EQ(client.events.back(), "comment hi");
}

TEST_F(IFile, MalformedRecordsEndTheRun) {
    std::unique_ptr<I_FILE> f(open(header(-71) + ".section main\nstmt P:0\ncomment S:\"not a node\"\n.end\n"));
    ASSERT_NE(f, nullptr);
    EXPECT_EXIT(f->if_read_file(), ::testing::ExitedWithCode(1), "INTERNAL ERROR: Invalid I-code record, aborting");
    std::unique_ptr<I_FILE> g(open(header(-71) + ".section main\nstmt P:0\nnode b:170 n:0\n.end\n"));
    EXPECT_EXIT(g->if_read_file(), ::testing::ExitedWithCode(1), "Invalid I-code record");
    std::unique_ptr<I_FILE> h(open(header(-71) + ".section main\neht n:1 b:9 n:0 n:0 n:0 n:0\n.end\n"));
    EXPECT_EXIT(h->if_read_file(), ::testing::ExitedWithCode(1), "INTERNAL ERROR: Invalid EHT record in I-code, aborting");
}

// A record too large for the memory left: the run ends with the writer's
// message instead of an out-of-memory abort somewhere else.
TEST_F(IFile, RecordTooLargeForMemoryEndsTheRun) {
    FILE* o = std::fopen("/dev/null", "wb");
    ASSERT_NE(o, nullptr);
    std::unique_ptr<I_FILE> w(I_FILE::if_create(o, type_pkg, "big.c"));
    std::string text(size_t{256} << 20, 'x');
    auto write_with_little_memory = [&] {
        // The address space allowed: what is mapped now and 64 MiB more.
        long pages = 0;
        FILE* statm = std::fopen("/proc/self/statm", "r");
        if (!statm || std::fscanf(statm, "%ld", &pages) != 1) std::exit(2);
        std::fclose(statm);
        rlim_t limit = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (rlim_t{64} << 20);
        rlimit r{limit, limit};
        if (setrlimit(RLIMIT_AS, &r) != 0) std::exit(2);
        w->if_write_comment(text.c_str());
        std::exit(0);
    };
    EXPECT_EXIT(write_with_little_memory(), ::testing::ExitedWithCode(1), ">> ICODE Buffer size exceeded and realloc failed");
}

TEST_F(IFile, FunctionsCanBeSkippedReadAndCopied) {
    std::unique_ptr<I_FILE> f(open(header(-71) + R"(.section main
begin_func P:0 n:0
label n:1
end_func P:0
begin_func P:0 n:0
label n:2
end_func P:0
.end
)" + types + R"(.section globals
symbol S:"f" n:0 n:0 c:0 w:0 n:3 n:0 n:16 c:0 n:0 n:0 P:0 b:0
.end
)"));
    ASSERT_NE(f, nullptr);
    long first = f->if_tell();
    f->if_read_file();  // the sections (types, globals) and the whole main stream
    client.events.clear();
    f->if_seek(first);
    f->if_skip_func();
    EXPECT_EQ(f->scope_level, 0);
    long second = f->if_tell();
    f->if_read_func(0);  // from where it stands: the second function
    EXPECT_EQ(client.events, (std::vector<std::string>{"begin f", "label 2", "end"}));
    f->if_read_func(first);
    EXPECT_EQ(client.events.back(), "end");
    EXPECT_EQ(client.events[client.events.size() - 2], "label 1");

    // The first function's bytes and the symbols, copied into a new file.
    fs::path out = dir.path / "copy.if";
    FILE* o = std::fopen(out.c_str(), "wb");
    I_FILE* w = I_FILE::if_create(o, type_pkg, "c.c");
    f->if_copy_raw(first, second - first, w);
    f->if_copy_symbols(w);
    EXPECT_EQ(w->if_close(false), 0);
    delete w;
    std::string text = disassemble(out);
    EXPECT_NE(text.find(".section main\nbegin_func P:0 n:0\nlabel n:1\nend_func P:0\nsymbol S:\"f\""),
              std::string::npos)
        << text;
}

TEST_F(IFile, WriterSectionsNamesAndPositions) {
    fs::path out = dir.path / "w.if";
    FILE* o = std::fopen(out.c_str(), "wb");
    I_FILE* w = I_FILE::if_create(o, type_pkg, "w.c");
    EXPECT_EQ(w->i_enter_file_name("a.c"), 1u);
    std::string copy = "a.c";
    EXPECT_EQ(w->i_enter_file_name(copy.c_str()), 1u);  // same text, another pointer
    EXPECT_EQ(w->i_enter_file_name("b.c"), 2u);
    w->if_write_control(IR_END_BLOCK, nullptr);
    PSN nameless{nullptr, 3, 4};
    w->if_write_control(IR_END_BLOCK, &nameless);
    EXPECT_EQ(w->if_close(false), 0);
    delete w;
    EXPECT_EQ(disassemble(out), R"(.header version=-71 cpu=0x258 source="w.c" extra=0
.section main
end_block P:0
end_block P:3:3:4
.end
.section files
source S:"a.c"
source S:"b.c"
source S:"NO_FILE"
.end
.section globals
.end
)");
    // An absent position is the single byte 0.
    std::string bytes = slurp(out);
    size_t header_size = 2 + static_cast<unsigned char>(bytes[1]);
    EXPECT_EQ(bytes.substr(header_size, 3), std::string("\x04\x01\x00", 3));
}

// The loop and dependence records come back through the reader's callbacks
// as they were written; a loop's control variable that no table holds is
// written as none.
TEST_F(IFile, LoopAndDependenceRecordsReadBackAsWritten) {
    fs::path out = dir.path / "l.if";
    FILE* o = std::fopen(out.c_str(), "wb");
    I_FILE* w = I_FILE::if_create(o, type_pkg, "l.c");
    SYMTAB counter, unlisted;
    counter.name = "n";
    counter.type = type_pkg->mk_int(TYPE::IK_INT, true);
    counter.size = 16;
    unlisted.name = "t";
    w->if_enter_global(&counter);
    const unsigned five[5] = {1, 2, 300, 4, 70000};
    w->if_write_loop(five, 0x8020);
    w->if_write_inloop(7, &counter, 0xe0);
    w->if_write_inloop(8, &unlisted, 0x08);
    w->if_write_inloop(9, nullptr, 0x1ff);
    w->if_write_dep_vector({-1, 0, 5, -70000, 4000000000LL});
    w->if_write_dep_vector({});
    w->if_write_dep_edge(3, 4, 1);
    w->if_write_mbank(five);
    EXPECT_EQ(w->if_close(false), 0);
    delete w;

    in = std::fopen(out.c_str(), "rb");
    std::unique_ptr<I_FILE> f(I_FILE::if_open(in, &client));
    ASSERT_NE(f, nullptr);
    f->if_read_file();
    EXPECT_EQ(client.events, (std::vector<std::string>{
                                 "source l.c",
                                 "symbol n pragmas 0",
                                 "loop 1 2 300 4 70000 flags 32800",
                                 "loop_header 7 n flags 224",
                                 "loop_header 8 - flags 8",
                                 "loop_header 9 - flags 255",
                                 "dd_vector -1 0 5 -70000 4000000000",
                                 "dd_vector",
                                 "dd_edge 3 4 1",
                                 "mbank 1 2 300 4 70000",
                             }));
}

}  // namespace
