// Runs of the generated units in ifrun, as the tests compare them.  The
// units may call `ext`, which is supplied here: it returns 3v + 1 (16 bits)
// and counts its calls in the first element of the unit's first array.  A
// run prints as "value | trace | memory": the return value, the volatile
// accesses and the calls of ext in order, and every global's final units.
#pragma once

#include <string>
#include <vector>

#include "minic.h"
#include "test_util.h"
#include "tools/ifrun/ifrun.h"

namespace oracle {

// One run per argument list; each fails with the reason when the unit can't
// be loaded.
inline std::vector<IFRUN_RESULT> run_all(const fs::path& file, const minic::MiniFunction& f,
                                         const std::vector<std::vector<long long>>& lists) {
    std::string error;
    std::unique_ptr<IFRUN_UNIT> unit = IFRUN_UNIT::load(file.string(), error);
    std::string first_array = f.globals.empty() ? "" : minic::name_of_decl(f.globals.front());
    auto int16 = [](int64_t v) { return static_cast<int64_t>(static_cast<int16_t>(static_cast<uint16_t>(v))); };
    std::vector<IFRUN_RESULT> out;
    for (const auto& args : lists) {
        IFRUN_OPTIONS o;
        o.entry = f.name;
        o.args.assign(args.begin(), args.end());
        o.step_limit = 2000000;
        o.trace_volatile = true;
        o.externals["ext"] = [&](IFRUN_CONTEXT& c, const std::vector<int64_t>& a) {
            int64_t v = a.empty() ? 0 : a[0];
            c.trace(" C" + std::to_string(v));
            if (!first_array.empty()) c.store_unit(first_array, 0, int16(c.load_unit(first_array, 0) + 1));
            return int16(3 * v + 1);
        };
        out.push_back(unit ? unit->run(o) : IFRUN_RESULT{false, 0, "", error});
    }
    return out;
}

// A run that stopped prints as what stopped it, without where: the
// optimized code must stop the same way, perhaps on another line.
inline std::string printed(const IFRUN_RESULT& r) {
    if (!r.ok) {
        std::string why = r.error;
        if (why.rfind("in '", 0) == 0 && why.find(": ") != std::string::npos) why = why.substr(why.find(": ") + 2);
        return "stopped: " + why.substr(0, why.find(" (address"));
    }
    std::string s = std::to_string(r.value) + " |" + r.trace + " |";
    for (const auto& [name, units] : r.globals)
        for (uint16_t u : units) s += " " + std::to_string(u);
    return s;
}

// Runs whose outcome the optimizer may change: those that run too long, and
// those that read a variable never set (whose value is anything).
inline bool comparable(const IFRUN_RESULT& r) {
    return r.ok || (r.error.find("the step limit") == std::string::npos &&
                    r.error.find("before anything was stored there") == std::string::npos);
}

}  // namespace oracle
