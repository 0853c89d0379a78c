// What was written in bad faith, cut off or damaged is read whole or refused whole, quickly, in
// little memory and with a reason. The cases are in the folder "files", ListCase.h says how one is
// written, Examine.h what is looked at.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string>

#include "reliability/lists/Examine.h"

namespace vessa_lists {
namespace {

// The worst that was seen, for the closing line of run.sh.
class Worst : public testing::Environment {
  public:
    void Add(const Examination& examination) {
        ++cases_;
        processor_ms_ = std::max(processor_ms_, examination.processor_ms);
        grown_kib_ = std::max(grown_kib_, examination.grown_kib);
    }
    void TearDown() override {
        if (cases_ != 0)
            std::cout << "worst of " << cases_ << ": " << processor_ms_ << " ms, "
                      << grown_kib_ / 1024 << " MiB\n";
    }

  private:
    int cases_ = 0;
    long processor_ms_ = 0;
    long grown_kib_ = 0;
};
Worst* const worst = dynamic_cast<Worst*>(testing::AddGlobalTestEnvironment(new Worst));

void ExpectNoProblem(const Examination& examination) {
    worst->Add(examination);
    for (const std::string& problem : examination.problems) ADD_FAILURE() << problem;
    if (std::getenv("VESSA_LISTS_SHOW") != nullptr)
        std::cout << examination.processor_ms << " ms, " << examination.grown_kib << " KiB\n";
}

class HostileLists : public testing::TestWithParam<std::string> {};

TEST_P(HostileLists, IsReadWholeOrRefusedWhole) {
    ExpectNoProblem(Examine(ReadCase(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Stored, HostileLists, testing::ValuesIn(StoredCases()),
                         [](const testing::TestParamInfo<std::string>& stored) {
                             std::string name = stored.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(HostileLists, AreAtLeastEighty) {
    EXPECT_GE(StoredCases().size(), 80u);
}

TEST(HostileLists, AListCutAnywhereIsRefusedOrReadWhole) {
    const ListCase whole = ReadCase("whole-4096");
    ASSERT_EQ(whole.content.size(), 4096u);
    ASSERT_EQ(whole.cuts.count(0), 1u);
    // Behind the section nothing but a line end is missing.
    const std::string end = "</vessa>";
    ASSERT_EQ(whole.cuts.rbegin()->first, whole.content.rfind(end) + end.size());
    ASSERT_EQ(whole.cuts.rbegin()->second, "accepted");
    ExpectNoProblem(ExamineTruncations(whole));
}

}  // namespace
}  // namespace vessa_lists
