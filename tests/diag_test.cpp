#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

#include "DIAG/diag.h"
#include "DIAG/user_msg_api.h"
#include "UTIL/safealloc.h"
#include "UTIL/signals.h"
#include "test_util.h"

namespace {

// Captures what diagnostics print and restores the display settings.
class Diag : public ::testing::Test {
protected:
    void SetUp() override {
        out_ = std::tmpfile();
        DIAGNOSTIC::out_m = out_;
        DIAGNOSTIC::remarks_m = DIAGNOSTIC::advice_m = DIAGNOSTIC::debug_m = false;
        DIAGNOSTIC::warnings_m = true;
        DIAGNOSTIC::display_code_m = DIAGNOSTIC::display_ipos_m = false;
        DIAGNOSTIC::wrap_enabled_m = false;
        DIAGNOSTIC::indent_m = 0;
        DIAGNOSTIC::clear_overrides();
        USER_MSG::get_umsg_obj().emit_warnings_as_errors(false);
        diag_reset_error_count();
        diag_error_limit = 0;
    }
    void TearDown() override {
        DIAGNOSTIC::out_m = nullptr;
        DIAGNOSTIC::display_code_m = false;
        DIAGNOSTIC::clear_overrides();
        USER_MSG::get_umsg_obj().emit_warnings_as_errors(false);
        diag_reset_error_count();
        std::fclose(out_);
    }
    std::string printed() {
        std::string s = read_all(out_);
        std::rewind(out_);
        if (ftruncate(fileno(out_), 0) != 0) ADD_FAILURE() << "can't clear capture";
        return s;
    }
    USER_MSG& umsg = USER_MSG::get_umsg_obj();
    FILE* out_ = nullptr;
};

TEST_F(Diag, TableIsSortedAndSearchable) {
    for (size_t i = 1; i < diag_info_count; ++i)
        EXPECT_LT(diag_info_table[i - 1].code, diag_info_table[i].code) << "at " << diag_info_table[i].code;
    const DIAG_INFO* d = DIAGNOSTIC::get_info(24003);
    ASSERT_NE(d, nullptr);
    EXPECT_STREQ(d->std_msg, "option %s overrides preceding option %s");
    EXPECT_EQ(d->severity, dc_WARNING);
    EXPECT_EQ(DIAGNOSTIC::get_info(24005), nullptr);
    EXPECT_EQ(DIAGNOSTIC::get_info(6006)->severity, dc_FATAL);
    EXPECT_EQ(DIAGNOSTIC::get_info(6002)->severity, dc_ERROR);
}

TEST_F(Diag, SeverityWords) {
    const char* expected[] = {"(suppressed)", "(no error)", "advice", "debug", "remark", "warning", "error", "fatal error"};
    for (int i = 0; i < 8; ++i) EXPECT_STREQ(severity_word(i), expected[i]);
    EXPECT_STREQ(severity_word(8), "(unknown)");
    EXPECT_STREQ(severity_word(-1), "(unknown)");
}

TEST_F(Diag, HeaderForms) {
    umsg.error("bad %d", 7);
    EXPECT_EQ(printed(), "error: bad 7\n");

    DIAGNOSTIC::display_code_m = true;
    umsg.error("bad");
    EXPECT_EQ(printed(), "error #99923: bad\n");
    // A discretionary table message carries -D.
    DIAG_EMIT(24003, "--a=2", "--a=1");
    EXPECT_EQ(printed(), "warning #24003-D: option --a=2 overrides preceding option --a=1\n");
    DIAGNOSTIC::display_code_m = false;

    // Internal messages always show where they were reported and their code.
    umsg.apperror("tool state");
    std::string s = printed();
    EXPECT_NE(s.find("DIAG/user_msg_api:"), std::string::npos) << s;
    EXPECT_NE(s.find(":internal error #99924: tool state\n"), std::string::npos) << s;

    DIAG_SRCINFO_DATA where("x.c", 12, 3, true);
    umsg.error(&where, "here");
    EXPECT_EQ(printed(), "x.c, line 12 (approximate): error: here\n");

    DIAGNOSTIC::indent_m = 2;
    umsg.error("deep");
    EXPECT_EQ(printed(), "    error: deep\n");
}

TEST_F(Diag, SeverityFiltersAndCounting) {
    umsg.remark("quiet");
    umsg.advice("hint");
    umsg.debug("trace");
    EXPECT_EQ(printed(), "");
    DIAGNOSTIC::remarks_m = DIAGNOSTIC::advice_m = DIAGNOSTIC::debug_m = true;
    umsg.remark("r");
    umsg.advice("a");
    EXPECT_EQ(printed(), "remark: r\nadvice: a\n");
    DIAGNOSTIC::warnings_m = false;
    umsg.warning(1u, "w");
    umsg.error("e");
    EXPECT_EQ(printed(), "error: e\n");
    EXPECT_EQ(umsg.get_error_count(), 1u);
}

TEST_F(Diag, WarningsAsErrors) {
    umsg.emit_warnings_as_errors();
    DIAGNOSTIC::display_code_m = true;
    umsg.warning(5u, "careful");
    EXPECT_EQ(printed(), "error #99923: careful\n");
    EXPECT_EQ(umsg.get_error_count(), 1u);
}

TEST_F(Diag, OnlyDiscretionaryMessagesChangeSeverity) {
    EXPECT_FALSE(DIAGNOSTIC::override_severity(99922u, dc_ERROR));  // fixed
    EXPECT_FALSE(DIAGNOSTIC::override_severity(24033u, dc_WARNING));  // fatal
    EXPECT_TRUE(DIAGNOSTIC::override_severity(24003u, dc_ERROR));
    DIAG_EMIT(24003, "--b", "--a");
    EXPECT_EQ(printed(), "error: option --b overrides preceding option --a\n");
    EXPECT_EQ(diag_error_count(), 1u);
    EXPECT_TRUE(DIAGNOSTIC::override_severity("option %s clears preceding option %s", dc_SUPPRESSED));
    DIAG_EMIT(24004, "--no_a", "--a");
    EXPECT_EQ(printed(), "");
}

TEST_F(Diag, PendingTextAndDump) {
    DIAGNOSTIC d(DIAGNOSTIC::get_info(24039), "f", 1);
    d.sp_print("%s-%d", "held", 1);
    EXPECT_EQ(printed(), "");
    d.flush();
    EXPECT_EQ(printed(), "held-1");
    DIAG_SRCINFO_DATA src("a.c", 4, 9);
    d.set_src(&src);
    d.dump();
    EXPECT_EQ(printed(), "Code : 24039\nstd_msg : %s\nvrb_msg : \nFile : a.c\nLine : 4\nColumn: 9\n");
    DIAGNOSTIC same(DIAGNOSTIC::get_info(24039), "g", 2, &src);
    EXPECT_TRUE(d.is_equal(&same));
}

TEST_F(Diag, WrappingBreaksLongLinesAtBlanks) {
    DIAGNOSTIC::wrap_enabled_m = true;
    DIAGNOSTIC::wrap_width_m = 20;
    umsg.error("one two three four five six seven eight");
    DIAGNOSTIC::wrap_width_m = 79;
    std::string s = printed();
    // The break comes at the first blank once the margin is reached.
    EXPECT_EQ(s, "error: one two three\n  four five six seven\n  eight\n");
}

TEST_F(Diag, AnnotatedSourceShowsTheLineAndACaret) {
    char name[] = "/tmp/opt5_src_XXXXXX";
    int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    const char text[] = "int a;\nint b = c + 1;\n";
    ASSERT_EQ(write(fd, text, sizeof text - 1), static_cast<ssize_t>(sizeof text - 1));
    close(fd);
    DIAG_SRCINFO_DATA where(name, 2, 9);
    umsg.error(&where, "undeclared");
    std::remove(name);
    EXPECT_EQ(printed(), std::string(name) + ", line 2: error: undeclared\nint b = c + 1;\n        ^\n");
}

using DiagDeath = Diag;

TEST_F(DiagDeath, SafemallocFailureExitsWithOne) {
    EXPECT_EXIT(
        {
            struct rlimit small;
            small.rlim_cur = small.rlim_max = 64 << 20;
            setrlimit(RLIMIT_AS, &small);
            safemalloc(size_t(1) << 30);
        },
        ::testing::ExitedWithCode(1), "^ERROR: out of memory\n$");
}

TEST_F(DiagDeath, DieJoinsWhereAndTextAndExitsWithOne) {
    EXPECT_EXIT(
        {
            DIAGNOSTIC::out_m = stderr;
            umsg.die("parse_md", "token %d", 4);
        },
        ::testing::ExitedWithCode(1), "internal fatal error #99926: \\(parse_md: token 4\\)");
}

TEST_F(DiagDeath, ErrorLimitEndsTheRun) {
    EXPECT_EXIT(
        {
            DIAGNOSTIC::out_m = stderr;
            diag_error_limit = 2;
            umsg.error("first");
            umsg.error("second");
        },
        ::testing::ExitedWithCode(1), "fatal error: error limit reached; 2 errors detected");
}

TEST(SignalNames, NamesAndDescriptions) {
    EXPECT_STREQ(signal_name(11), "SIGSEGV");
    EXPECT_STREQ(signal_name(31), "SIGSYS");
    EXPECT_STREQ(signal_name(3), "<unknown>");
    EXPECT_STREQ(signal_name(0), "<unknown>");
    EXPECT_STREQ(signal_name(64), "<unknown>");
    EXPECT_STREQ(signal_description(6), "had an internal inconsistency and aborted");
    EXPECT_STREQ(signal_description(25), "exceeded the file size limit");
    EXPECT_STREQ(signal_description(3), "experienced a fatal internal fault");
}

}  // namespace
