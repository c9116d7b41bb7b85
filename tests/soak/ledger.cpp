#include "ledger.h"

#include <fmt/format.h>

#include <utility>

namespace test {

std::string Ledger::text() const {
    std::string lines;
    for (const auto& [name, count] : {
             std::pair("started", started.load()),
             std::pair("delivered once", delivered.load()),
             std::pair("cancelled", cancelled.load()),
             std::pair("ended with the engine", ended_with_engine.load()),
             std::pair("unaccounted for", unaccounted()),
             std::pair("delivered twice", delivered_twice.load()),
             std::pair("delivered after a cancel", delivered_after_cancel.load()),
             std::pair("other than expected", other_than_expected.load()),
         }) {
        lines += fmt::format("  {:<26}{:>10}\n", name, count);
    }
    return lines;
}

}  // namespace test
