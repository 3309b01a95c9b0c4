// The message table.  Entries stay sorted by code (DIAGNOSTIC::get_info
// searches it by bisection; the unit tests check the order).
#include "DIAG/diag.h"

#define S(sev) dc_##sev

const DIAG_INFO diag_info_table[] = {
    // code   std_msg                                                        vrb  severity     internal fixed
    // File and pointer checks.
    {6000, "could not open file \"%s\": %s", nullptr, S(FATAL), false, false},
    {6001, "could not create file \"%s\": %s", nullptr, S(FATAL), false, false},
    {6002, "pointer %s should be null at %s", nullptr, S(ERROR), false, false},
    {6003, "pointer %s should not be null at %s", nullptr, S(ERROR), false, false},
    {6004, "\"%s\" is not a valid archive", nullptr, S(FATAL), false, false},
    {6005, "archive \"%s\" has no member \"%s\"", nullptr, S(FATAL), false, false},
    {6006, "invalid option:  %s", nullptr, S(FATAL), false, false},
    {6007, "could not read file \"%s\": %s", nullptr, S(FATAL), false, false},

    // Option parsing and conflicts.
    {24000, "option is invalid", nullptr, S(ERROR), false, false},
    {24001, "out of memory", nullptr, S(FATAL), false, false},
    {24002, "option %s conflicts with previous option %s", nullptr, S(ERROR), false, false},
    {24003, "option %s overrides preceding option %s", nullptr, S(WARNING), false, false},
    {24004, "option %s clears preceding option %s", nullptr, S(REMARK), false, false},
    {24006, "Attempt to clear PERSISTENT option %s ignored", nullptr, S(WARNING), false, false},
    {24010, "option %s is missing its parameter '%s'", nullptr, S(ERROR), false, false},
    {24011, "argument to option %s (%s) is out of range", nullptr, S(ERROR), false, false},
    {24012, "argument to option %s (%s) is not a number", nullptr, S(ERROR), false, false},
    {24015, "bad argument to option %s: should be one of {%s}", nullptr, S(ERROR), false, false},
    {24017, "Option %s is not valid %s %s (ignored)", nullptr, S(WARNING), false, false},
    {24019, "garbage following option -%s ignored", nullptr, S(WARNING), false, false},
    {24020, "option %s was set for an earlier file but is not set now", nullptr, S(WARNING), false, false},
    {24021, "option %s is set now but was not set for an earlier file", nullptr, S(WARNING), false, false},
    {24022, "option %s is incompatible with option %s seen before", nullptr, S(ERROR), false, false},
    {24023, "option %s conflicts with option %s of an earlier file", nullptr, S(ERROR), false, false},
    {24026, "Argument of %s must be a power of 2", nullptr, S(ERROR), false, false},
    {24033, "Silicon version %s is not a supported or valid value", nullptr, S(FATAL), false, false},
    {24038, "%s", nullptr, S(REMARK), false, false},
    {24039, "%s", nullptr, S(WARNING), false, false},
    {24040, "%s", nullptr, S(ERROR), false, false},
    {24041, "%s", nullptr, S(FATAL), false, false},

    // User messages of the USER_MSG interface.
    {99900, "error limit reached; %u errors detected", nullptr, S(FATAL), false, false},
    {99920, "%s", nullptr, S(DEBUG), true, false},
    {99921, "%s", nullptr, S(REMARK), false, true},
    {99922, "%s", nullptr, S(WARNING), false, true},
    {99923, "%s", nullptr, S(ERROR), false, true},
    {99924, "%s", nullptr, S(ERROR), true, true},
    {99925, "%s", nullptr, S(FATAL), false, true},
    {99926, "%s", nullptr, S(FATAL), true, true},
    {99927, "%s", nullptr, S(ADVICE), false, true},
};

#undef S

const size_t diag_info_count = sizeof diag_info_table / sizeof diag_info_table[0];
