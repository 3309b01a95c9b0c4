// The machine-description language: the Pellin description parses, prints
// to text that parses to the same rule base, syntax errors name their line
// and token, and the rule base answers cost queries.
#include <gtest/gtest.h>

#include <sstream>

#include <cstdio>
#include <memory>

#include "OPT5/md_parse.h"
#include "OPT5/matcher.h"
#include "OPT5/md_rules.h"
#include "OPT5/opcodes.h"
#include "test_util.h"
#include "tools/md_lexer.h"

namespace {

const char header[] = "OPTIMIZER MACHINE DESCRIPTION : \"T\"\nTARGETS : BRV\nENDIAN : LITTLE\n";

class Md : public ::testing::Test {
protected:
    void SetUp() override {
        init_opcode_tables();
        saved = md_rule_base;
    }
    // The rule base in use before (the tests' own are gone with them).
    void TearDown() override {
        md_rule_base = saved;
        if (saved) build_rule_tables(saved);
    }
    RULE_BASE* saved = nullptr;

    // Parses description text; null with `error` set on a syntax error.
    std::unique_ptr<RULE_BASE> parse(const std::string& text, bool prune = true) {
        std::vector<MD_LEXED> lexed;
        std::string lex_error;
        EXPECT_TRUE(md_lex(text, lexed, lex_error)) << lex_error;
        std::vector<MD_TOKEN> toks = md_token_array(lexed);
        error.clear();
        return std::unique_ptr<RULE_BASE>(parse_md_tokens(toks.data(), prune, &error));
    }
    std::string printed(RULE_BASE* rb) {
        FILE* f = std::tmpfile();
        rb->print(f);
        std::string s = read_all(f);
        std::fclose(f);
        return s;
    }
    static int count(DECL_RULE* list) {
        int n = 0;
        for (; list; list = list->next) ++n;
        return n;
    }
    // The printed form without the comments that note source lines.
    static std::string without_lines(std::string s) {
        for (size_t at = s.find("// line "); at != std::string::npos; at = s.find("// line ", at))
            s.erase(at, s.find('\n', at) + 1 - at);
        return s;
    }
    std::string pellin() { return slurp(fs::path(OPT5_SOURCE_DIR) / "OPT5/pellin.md"); }
    std::string error;
};

// The lines of a description that begin with one of the heads.
int statements_of(const std::string& md, std::initializer_list<const char*> heads) {
    std::istringstream in(md);
    int n = 0;
    for (std::string line; std::getline(in, line);)
        for (const char* head : heads) n += line.rfind(head, 0) == 0;
    return n;
}

TEST_F(Md, ThePellinDescriptionParsesAndPrintsToItself) {
    auto rb = parse(pellin());
    ASSERT_TRUE(rb) << error;
    EXPECT_EQ(rb->name, "Pellin");
    EXPECT_EQ(rb->real_fu_count, 6);
    EXPECT_EQ(rb->fu_names.size(), 9u);
    // Every operation declared once, __sadd on any 32-bit container
    // imprecisely, and the built-in declaration of the complex type.
    const int decls = statements_of(pellin(), {"( ICODE ", "( ICALL ", "( OP ", "( XOP "}) - 1 + 1;
    const int rules = statements_of(pellin(), {"( SIMD ", "( SIMPLIFY ", "( COMBINE "});
    EXPECT_EQ(count(rb->decls), decls);
    EXPECT_EQ(count(rb->imprecise_decls), 1);
    EXPECT_EQ(count(rb->rules), rules);
    // The printed form parses to the same rule base; only the source lines
    // that the print notes in comments differ.
    std::string once = printed(rb.get());
    auto again = parse(once);
    ASSERT_TRUE(again) << error << "\n" << once;
    EXPECT_EQ(without_lines(printed(again.get())), without_lines(once));
    EXPECT_EQ(count(again->decls), decls);
    EXPECT_EQ(count(again->rules), rules);
}

TEST_F(Md, TheCompiledInRuleBaseIsTheParsedDescription) {
    auto rb = parse(pellin());
    ASSERT_TRUE(rb) << error;
    RULE_BASE* compiled = compiled_rule_base();
    compiled->link_compiled_lists();
    EXPECT_EQ(printed(compiled), printed(rb.get()));
}

TEST_F(Md, EmptyBodyAndOptionalSections) {
    // Nothing but the built-in declaration: the complex type, two 16-bit
    // parts in a 32-bit container; printed and parsed again, still one.
    auto rb = parse(header);
    ASSERT_TRUE(rb) << error;
    ASSERT_EQ(count(rb->decls), 1);
    EXPECT_EQ(rb->decls->pattern->op, COMPLEX);
    EXPECT_EQ(rb->decls->pattern->trep->name(), "X32");
    EXPECT_EQ(rb->decls->pattern->nopd, 2);
    EXPECT_EQ(rb->rules, nullptr);
    auto again = parse(printed(rb.get()));
    ASSERT_TRUE(again) << error;
    EXPECT_EQ(count(again->decls), 1);
    rb = parse(std::string(header) + "DEFAULT COST : 3\nDEFAULT LATENCY : 2\n");
    ASSERT_TRUE(rb) << error;
    EXPECT_EQ(rb->default_cost, 3);
    EXPECT_EQ(rb->default_latency, 2);
    // Present lines keep the order from the start: SPACE can't follow COST.
    EXPECT_FALSE(parse(std::string(header) + "DEFAULT COST : 3\nDEFAULT SPACE : 2\n"));
    EXPECT_NE(error.find("need COST/LATENCY/SPACE after DEFAULT"), std::string::npos) << error;
}

TEST_F(Md, SyntaxErrorsNameLineTokenAndReason) {
    struct Case {
        std::string text;
        const char* message;
        int line;
        const char* token;
    } cases[] = {
        {"OPTIMIZER DESCRIPTION", "need the keywords OPTIMIZER MACHINE DESCRIPTION", 1, "DESCRIPTION"},
        {"OPTIMIZER MACHINE DESCRIPTION : \"T\"\nTARGETS : ( V9 W8 )\nENDIAN : LITTLE\n", "none of cpu versions matches", 2,
         ")"},
        {"OPTIMIZER MACHINE DESCRIPTION : \"T\"\nTARGETS : V9\n", "cpu version doesn't match", 2, "V9"},
        {"OPTIMIZER MACHINE DESCRIPTION : \"T\"\nTARGETS : ( )\n", "at least one target name is needed", 2, ")"},
        {"OPTIMIZER MACHINE DESCRIPTION : \"T\"\nTARGETS : BRV\nENDIAN : SIDEWAYS\n", "unknown keyword after colon", 3,
         "SIDEWAYS"},
        {std::string(header) + "FUNCTIONAL UNITS : ( A B A )", "duplicate functional unit", 4, "A"},
        {std::string(header) + "DEFAULT LATENCY : 1", "need COST/LATENCY/SPACE after DEFAULT", 4, "LATENCY"},
        {std::string(header) + "DEFAULT COST : x", "default cost must be an ICON", 4, "x"},
        {std::string(header) + "( ICODE (PLUS : X1 a b) )", "pattern is not valid", 4, "X1"},
        {std::string(header) + "( ICODE (PLUS : X {32 - 32} a b) )", "pattern is not valid", 4, "}"},
        {std::string(header) + "( ICODE (PLUS : I16 a b) HOLDS (MAXVAL(3) && MAXVAL(4)) )",
         "inconsistent maximum value", 4, ")"},
        {std::string(header) + "( ICODE (PLUS : I16 a b) HOLDS (NEVER) )", "unknown holds flag", 4, "NEVER"},
        {std::string(header) + "( ICODE (FROB : I16 a b) )", "need a valid operator", 4, "FROB"},
        {std::string(header) + "( XOP (PLUS : I16 a b) IS (PLUS : I16 a b) )",
         "xop has the same name as an internal operator", 4, "PLUS"},
        {std::string(header) + "( XOP (ADDX : I16 a b) COST 1 )", "need the keyword IS in xop declaration", 4, "COST"},
        {std::string(header) + "( ICODE (PLUS : I16 a b) FUNITS NOPE )", "functional unit name not declared", 4, "NOPE"},
        {std::string(header) + "( ICODE (PLUS : I16 a b) FOR ( V9 ) )", "not declared in the target line", 4, "V9"},
        {std::string(header) + "( ICODE (PLUS : I16 [2] [4] a b) WHEN a.IS_ICON )",
         "cannot declare multiple ICODEs with a WHEN clause", 4, "IS_ICON"},
        {std::string(header) + "( ICALL (__f : I16 a b) WHEN a.IS_RC )",
         "only is_fetch or is_icon is allowed in ICALL/MCALL contraint", 4, "IS_RC"},
        {std::string(header) + "( ICALL (__f : I16 a b) WHEN a.IS_FETCH || ! b.IS_RC )",
         "only is_fetch or is_icon is allowed in ICALL/MCALL contraint", 4, "IS_RC"},
        {std::string(header) + "( ICODE (PLUS : I16 [0] a b) )", "a need constant (ICON/FCON/SCON)", 4, "0"},
        {std::string(header) + "( ICALL (__f : I16) )", "ICALL/MCALL has no argument", 4, ")"},
        {std::string(header) + "( SIMPLIFY (PLUS : I16 a 0) a )", "need the keyword AS in simplify-rule", 4, "a"},
        {std::string(header) + "( SIMPLIFY (PLUS : I16 a $3) AS a )", "the label tree is not defined", 4, "3"},
        {std::string(header) + "( SIMD (PLUS : I16 a b) AS (PLUS : I16 [2] a b) HOIST (PLUS : I16 a b) )",
         "HOIST needs a DEF or VDEF", 4, ")"},
        {std::string(header) + "( SIMD (PLUS : I16 a b) AS (PLUS : I16 [2] a b) HOIST (DEF {s} a) )",
         "need the keyword SINK in simd-rule", 4, ")"},
        {std::string(header) + "( ICODE (PLUS : I16 (MULT : I16 [2] [4] a b) c) )",
         "don't know how to generate multiple decls", 4, ")"},
        {std::string(header) + "( SIMPLIFY (PLUS : I16 a b) AS a WHEN a < b )",
         "currently we only accept ICON for relation operator", 4, "b"},
        {std::string(header) + "( SIMPLIFY (PLUS : I16 a b) AS a GIVEN BIG_ENDIAN && LITTLE_ENDIAN )",
         "an endian constraint has been specified before", 4, "LITTLE_ENDIAN"},
        {std::string(header) + "( COMBINE (PLUS : I16 a b) AS a (PLUS : I16 c d) AS c )",
         "need the keyword WITH in combine-rule", 4, "("},
        {std::string(header) + "( ICODE (PLUS : I16 a b) COST 1", "declaration should be ended with a )", 4, "<end>"},
        {std::string(header) + "\n\n( FROB )", "need a declaration or rule", 6, "FROB"},
    };
    for (const Case& c : cases) {
        EXPECT_FALSE(parse(c.text)) << c.text;
        std::string expected = std::string(c.message) + " MD file syntax error at line " + std::to_string(c.line) +
                               ": when parsing " + c.token + ", " + c.message;
        EXPECT_EQ(error, expected) << c.text;
    }
}

// An ICALL may ask IS_FETCH and IS_ICON under || and ! as well as &&.
TEST_F(Md, IcallConstraintsMayJoinFetchAndIconTestsAnyWay) {
    for (const char* when : {"a.IS_FETCH || b.IS_ICON", "! a.IS_FETCH", "a.IS_ICON && ( ! b.IS_FETCH || b.IS_ICON )"}) {
        auto rb = parse(std::string(header) + "( ICALL (__f : I16 a b) WHEN " + when + " )");
        EXPECT_TRUE(rb) << when << ": " << error;
    }
}

// What a rule base prints parses back to the same rule base: the HOLDS
// flags as their flag word and bounds (the operands that commute being the
// pattern's first two parameters), the induction-variable and stride tests
// in their printed spelling.
TEST_F(Md, PrintedFlagWordsAndTestsParseBack) {
    auto rb = parse(std::string(header) +
                    "( ICALL (__clip : I16 c a b) HOLDS (OPDS_COMMUTE(c a) && MAXVAL(99) && MINVAL(-7) && "
                    "OPDS_MUST_NOT_CSE(1 2) && IS_BARRIER) )\n"
                    "( SIMPLIFY (PLUS : I16 a b) AS a WHEN a.STRIDE(2) && ! b.IS_IV )");
    ASSERT_TRUE(rb) << error;
    std::string once = printed(rb.get());
    EXPECT_NE(once.find(" HOLDS (0x57 0x6 maxval=99 minval=-7)\n"), std::string::npos) << once;
    EXPECT_NE(once.find(" a.stride(2) "), std::string::npos) << once;
    EXPECT_NE(once.find(" b.is_IV() "), std::string::npos) << once;
    auto again = parse(once);
    ASSERT_TRUE(again) << error << "\n" << once;
    EXPECT_EQ(without_lines(printed(again.get())), without_lines(once));
    const MD_BIF& bif = again->decls->bif;
    EXPECT_EQ(bif.flags, rb->decls->bif.flags);
    EXPECT_EQ(bif.opds_must_not_cse, 6u);
    EXPECT_EQ(bif.maxval, INT65(99));
    EXPECT_EQ(bif.minval, INT65(-7));
    EXPECT_EQ(std::string() + bif.commute_a + bif.commute_b, "ca");
    // The flag word's form checks its words.
    EXPECT_FALSE(parse(std::string(header) + "( ICODE (PLUS : I16 a b) HOLDS (0x1 0x0 top=1 minval=0) )"));
    EXPECT_NE(error.find(", unknown holds flag"), std::string::npos) << error;
}

TEST_F(Md, LexicalClasses) {
    // T is never a parameter name; a repeated equal MAXVAL is fine.
    EXPECT_FALSE(parse(std::string(header) + "( ICODE (PLUS : I16 T b) )"));
    auto rb = parse(std::string(header) + "( ICODE (PLUS : I16 a b) HOLDS (MAXVAL(3) && MAXVAL(3) && MINVAL(-2)) )");
    ASSERT_TRUE(rb) << error;
    EXPECT_EQ(rb->decls->bif.maxval, INT65(3));
    EXPECT_EQ(rb->decls->bif.minval, INT65(-2));
    // Several SIMD factors make one declaration each.
    rb = parse(std::string(header) + "( ICODE (PLUS : I16 [2] [4] a b) COST 2 )");
    ASSERT_TRUE(rb) << error;
    ASSERT_EQ(count(rb->decls), 3);  // and the built-in one
    EXPECT_EQ(rb->decls->sf, 2);
    EXPECT_EQ(rb->decls->next->sf, 4);
    // The constraint forms, printed back in a form that parses again.
    rb = parse(std::string(header) +
               "( SIMPLIFY (PLUS : I16 a (MULT : I16 b c)) AS a WHEN a.IS_ICON && ( b == 2 || ! b.IS_FETCH ) && "
               "(&a - &c) == 1 && (a - b) < 8 GIVEN OPT_LEVEL_AT_LEAST(2) && LITTLE_ENDIAN )");
    ASSERT_TRUE(rb) << error;
    std::string once = printed(rb.get());
    EXPECT_NE(once.find("WHEN  a.IS_ICON && ( b == 2  ||  ! b.IS_FETCH ) && (&a - &c) == 1 && (a - b) < 8"),
              std::string::npos)
        << once;
    auto again = parse(once);
    ASSERT_TRUE(again) << error << once;
    EXPECT_EQ(without_lines(printed(again.get())), without_lines(once));
    // Declarations for another target are dropped when the base is pruned.
    rb = parse("OPTIMIZER MACHINE DESCRIPTION : \"T\"\nTARGETS : ( BRV V9 )\nENDIAN : BIG\n"
               "( ICODE (PLUS : I16 a b) FOR ( V9 ) )\n( ICODE (MINUS : I16 a b) FOR ( BRV ) )");
    ASSERT_TRUE(rb) << error;
    ASSERT_EQ(count(rb->decls), 2);
    EXPECT_EQ(rb->decls->pattern->op, MINUS);
    EXPECT_TRUE(rb->md_big_endian);
}

TEST_F(Md, CostQueries) {
    auto rb = parse(pellin());
    ASSERT_TRUE(rb) << error;
    md_rule_base = rb.get();
    DFG node;
    node.op = PLUS;
    node.trep = find_TREP('i', 16, 1);
    EXPECT_EQ(cost_of_dfg_node(&node), 1);
    EXPECT_EQ(latency_of_dfg_node(&node), 1);
    node.op = MULT;
    node.trep = find_TREP('i', 32, 1);
    EXPECT_EQ(cost_of_dfg_node(&node), 3);
    EXPECT_EQ(latency_of_dfg_node(&node), 3);
    EXPECT_EQ(space_of_dfg_node(&node), 2);
    node.trep = find_TREP('i', 16, 1);
    node.sf = 2;
    EXPECT_EQ(latency_of_dfg_node(&node), 2);  // the dual multiply
    // No declaration: -1, but an intrinsic call costs 1.
    node.op = DIV;
    EXPECT_EQ(cost_of_dfg_node(&node), -1);
    node.op = ICALL;
    node.name = "__unknown";
    EXPECT_EQ(cost_of_dfg_node(&node), 1);
    EXPECT_EQ(cost_of_dfg_node(nullptr), 0);
    // A declaration without its own figures takes the defaults.
    node = DFG();
    node.op = MINUS;
    node.trep = find_TREP('i', 16, 1);
    EXPECT_EQ(cost_of_dfg_node(&node), rb->default_cost);
    // Derived units stand for their real ones.
    EXPECT_EQ(map_derivedFUIdx_to_realFU(rb->fu_index("LSU")), (std::set<unsigned>{3, 4}));
    EXPECT_EQ(map_derivedFUIdx_to_realFU(rb->fu_index("MAC")), (std::set<unsigned>{2}));
    std::vector<std::pair<int, std::set<unsigned>>> usage;
    node.op = PLUS;
    FU_usage_of_dfg_node(&node, usage);
    ASSERT_EQ(usage.size(), 1u);
    EXPECT_EQ(usage[0].second, (std::set<unsigned>{0, 1}));
}

TEST(MdEndToEnd, DebugParserWritesTheRuleBase) {
    TempDir dir;
    ASSERT_EQ(assemble(slurp(fs::path(OPT5_SOURCE_DIR) / "tests/data/add.txt"), dir.path / "in.if"), "");
    Result r = run_program(OPT5_BINARY, {"--debug=parser", "in.if", "out.if"}, dir.path);
    EXPECT_EQ(r.status, 0) << r.err;
    std::string md = slurp(dir.path / "md.out");
    EXPECT_EQ(md.rfind("OPTIMIZER MACHINE DESCRIPTION : \"Brevan\"\nTARGETS : ( BRV )\nENDIAN : LITTLE\n", 0), 0u) << md;
    // No unit was read, so no output file is made.
    EXPECT_FALSE(fs::exists(dir.path / "out.if"));
}

TEST(MdEndToEnd, ParsemdParsesTheCompiledInDescriptionInstead) {
    TempDir dir;
    ASSERT_EQ(assemble(slurp(fs::path(OPT5_SOURCE_DIR) / "tests/data/add.txt"), dir.path / "in.if"), "");
    Result r = run_program(OPT5_BINARY, {"--debug_file=dbg", "in.if", "out.if"}, dir.path);
    ASSERT_EQ(r.status, 0) << r.err;
    std::string normal = slurp(dir.path / "dbg");
    // As many rules as the description states.
    int rules = statements_of(slurp(fs::path(OPT5_SOURCE_DIR) / "OPT5/pellin.md"),
                              {"( SIMD ", "( SIMPLIFY ", "( OP ", "( XOP ", "( COMBINE "});
    EXPECT_NE(normal.find("\n[" + std::to_string(rules) + " SIMD/SIMPLIFY/OP/XOP/COMBINE rules]\n"), std::string::npos)
        << normal;
    // The compiled-in token array holds only the header: no rules at all.
    r = run_program(OPT5_BINARY, {"--debug=parsemd", "--debug_file=dbg", "in.if", "out.if"}, dir.path);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("Parse succeeded!  (SIMD "), std::string::npos) << r.err;
    std::string parsed = slurp(dir.path / "dbg");
    EXPECT_NE(parsed.find("\n[0 SIMD/SIMPLIFY/OP/XOP/COMBINE rules]\n"), std::string::npos) << parsed;
}

}  // namespace
