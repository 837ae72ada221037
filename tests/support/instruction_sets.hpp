// The instruction sets among which the library's own loops choose at run time.
#ifndef TALVIK_TESTS_INSTRUCTION_SETS_HPP
#define TALVIK_TESTS_INSTRUCTION_SETS_HPP

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <cstdint>

namespace talvik::test {

/// Calls body once for each instruction set of this processor, best first; the better ones are
/// disabled meanwhile.  Afterwards all are enabled.
template <class Body>
void on_every_instruction_set(const Body& body) {
  // A lower bit is a better set.  Below the emulated vectors there is nothing to choose.
  for (std::int64_t sets = hwy::SupportedTargets() & ~HWY_SCALAR; sets != 0; sets &= sets - 1) {
    const std::int64_t best = sets & -sets;
    SCOPED_TRACE(hwy::TargetName(best));
    hwy::SetSupportedTargetsForTest(sets);
    body();
  }
  hwy::SetSupportedTargetsForTest(0);
}

}  // namespace talvik::test

#endif
