// libFuzzer target for the I-file reader: any input either reads or ends in
// one of the reader's format errors; nothing may crash.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <vector>

#include "IFILE/if_file.h"
#include "OPT5/node.h"
#include "OPT5/opcodes.h"
#include "OPT5/symtab.h"
#include "TYPES/type_pkg.h"
#include "UTIL/cleanup.h"
#include "../recorder.h"

namespace {

struct rejected : std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[noreturn]] void reject(const char* message) { throw rejected(message); }
[[noreturn]] void reject_exit() { throw rejected("abnormal exit"); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool ready = [] {
        init_opcode_tables();
        set_if_fatal_handler(reject);
        set_abnormal_exit_cleanup(reject_exit);
        return true;
    }();
    (void)ready;
    std::vector<uint8_t> copy(data, data + size);
    FILE* f = fmemopen(copy.empty() ? nullptr : copy.data(), copy.size(), "rb");
    if (!f) return 0;
    init_types();
    {
        Recorder client;
        try {
            std::unique_ptr<I_FILE> file(I_FILE::if_open(f, &client));
            if (file) file->if_read_file();
        } catch (const rejected&) {
        }
    }
    std::fclose(f);
    release_types();
    return 0;
}
