#include "host/hostStatus.hpp"
#include "report/htmlReport.hpp"
#include "report/plots.hpp"

#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

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

TEST(Histogram, GathersTheRarestInItsLastBar) {
    std::vector<double> values(200);
    values.back() = 5000.0;
    const Plot plot = Histogram("", "", values);
    EXPECT_EQ(plot.series[0].y.back(), 1.0);
    EXPECT_EQ(plot.marks[0].text, "more, up to 5000 us");
}

TEST(DrawSvg, ManagesWithEmptyFlatAndInfiniteData) {
    const double infinity = std::numeric_limits<double>::infinity();
    for (const auto style : {PlotSeries::Style::Line, PlotSeries::Style::Dots, PlotSeries::Style::Bars}) {
        EXPECT_THAT(DrawSvg({"", "", "", true, {{"a", "a", style, {}, {}, {}}}, {}}), Not(HasSubstr("nan")));
        EXPECT_THAT(DrawSvg({"", "", "", false, {{"a", "a", style, {1, 1}, {2, 2}, {}}}, {{1, "x"}}}),
                    Not(HasSubstr("nan")));
    }
    const PlotSeries gap{"a", "a", PlotSeries::Style::Line, {0, 1, 2}, {1, infinity, 2}, {}};
    EXPECT_THAT(DrawSvg({"", "", "", false, {gap}, {}}), Not(HasSubstr("inf")));
}

TEST(HostStatus, IsReadFromTheHostsJson) {
    const std::string counts =
        R"({"late_setpoints":1,"missing_answers":2,"foreign_answers":3,"kept_back_setpoints":4,)"
        R"("overwritten_commands":5,"unfit_source_cycles":6,"failed_mode_changes":0,"clock_steps":7,"grid_points_skipped":8})";
    const HostStatus status = ParseHostStatus(
        R"({"mode":"TEL_DRIVEN","source":"CCS/TEL","handover_state":0,"log_dropped":2,"counts":)" + counts +
        R"(,"threads":[{"priority":0,"priority_given":0},{"priority":9,"priority_given":0}])"
        R"(,"streams":[{"name":"M4_OUTPUT","samples":7,"invalid":0,"lost":3,"dropped_packets":4}],)"
        R"("events":[{"time_ns":5,"text":"say \"hi\" \u00b5"}]})");
    EXPECT_EQ(status.source, "CCS/TEL");
    EXPECT_EQ(status.streams.at("M4_OUTPUT").lost, 3U);
    EXPECT_TRUE(status.priority_refused);
    EXPECT_EQ(status.counts.grid_points_skipped, 8U);
    ASSERT_EQ(status.events.size(), 1U);
    EXPECT_EQ(status.events[0].time.time_since_epoch().count(), 5);
    EXPECT_EQ(status.events[0].text, "say \"hi\" \u00b5");
    EXPECT_THROW(ParseHostStatus("ok"), std::runtime_error);
    EXPECT_THROW(ParseHostStatus("{\"mode\": "), std::runtime_error);
}

}  // namespace
}  // namespace vosk::rig
