#include "report/htmlReport.hpp"

#include <vosk/test/support.hpp>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;
using namespace testing;

TEST(HtmlReport, EscapesForeignTextAndNeedsNoNetwork) {
    RunReport report;
    report.name = "<script>alert(1)</script>";
    report.violations = {"the host said \"</body>\""};
    const std::string html = MakeHtmlReport(report, "<machine>");
    for (const char* text : {"&lt;script&gt;", "&lt;machine&gt;", "&quot;&lt;/body&gt;&quot;"})
        EXPECT_THAT(html, HasSubstr(text));
    EXPECT_THAT(html, AllOf(Not(HasSubstr("<script>")), Not(HasSubstr("http"))));
}

TEST(Report, GathersWhatThePeersSay) {
    PeerAccount good;
    good.achievement = "all was well";
    good.history = {{2.0, "later"}, {1.0, "sooner"}};
    std::vector<PeerAccount> accounts(2, good);
    const RunReport holds = MakeReport({}, {}, {}, accounts);
    EXPECT_EQ(holds.verdict, "the verdict holds: all was well; all was well");
    const auto& rows = holds.sections.back().rows;
    EXPECT_THAT(rows,
                ElementsAre(Contains("sooner"), Contains("sooner"), Contains("later"), Contains("later")));
    accounts[1].violations = {"one broke"};
    EXPECT_THAT(MakeReport({}, {}, {"the host broke"}, accounts).violations,
                ElementsAre("the host broke", "one broke"));
}

TEST(Figures, CountWhatIsLostOnlyAtRest) {
    RunFacts facts;
    facts.status.streams["M4_OUTPUT"].samples = 5;
    facts.status_time = time_point{3ms};
    const auto figures = [&] {
        const std::vector<time_point> arrived{time_point{1ms}, time_point{2ms}, time_point{4ms}};
        return FiguresOfReceived("", arrived, 1ms, facts, "M4_OUTPUT", 1);
    };
    EXPECT_EQ(figures().lost, std::nullopt);
    facts.at_rest = true;
    EXPECT_EQ(figures().lost, 2U);      // of 5, two arrived by then and one in parts
    EXPECT_EQ(figures().rate, 1000.0);  // the gap is no period
}

}  // namespace
}  // namespace vosk::rig
