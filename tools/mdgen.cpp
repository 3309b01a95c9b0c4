// mdgen: parses the target's machine description (compiled in as tokens by
// mdlex) and writes the rule base as C++ source for the optimizer.
//
//   mdgen output_dir
#include <cstdio>
#include <string>

#include "OPT5/md_rules.h"
#include "OPT5/md_token.h"
#include "OPT5/opcodes.h"
#include "TYPES/type_pkg.h"

extern const MD_TOKEN pellin_tokens[];

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: mdgen output_dir\n");
        return 2;
    }
    init_opcode_tables();
    init_types();
    std::string error;
    RULE_BASE* rb = parse_md_tokens(pellin_tokens, true, &error);
    if (!rb) {
        std::fprintf(stderr, "pellin.md:%s\nParse Failed!\n", error.c_str());
        return 1;
    }
    bool written = rb->dump(argv[1]);
    delete rb;
    release_types();
    if (!written) {
        std::fprintf(stderr, "mdgen: cannot write the rule base into %s\n", argv[1]);
        return 1;
    }
    return 0;
}
