#include <oru/configng/pliConfigDocument.hpp>

#include <vosk/test/logCapture.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

using namespace oru::configng;
using namespace testing;
using namespace vosk::test;
using Matrix = oru::experimental::datatypes::PliMatrix2D<double>;
using oru::configng::util::IsActualMatrix;
using Shape = std::optional<std::pair<unsigned long, unsigned long>>;

namespace {

PliConfigInstanceNode Value(const std::string& text) {
    return NodeOf("v: " + text)["v"];
}

template <class T>
void ExpectRefusal(std::initializer_list<const char*> texts, const std::string& reason) {
    for (const char* text : texts)
        EXPECT_THAT(TextOf<PliConfigValueError>([text] { return Value(text).As<T>(); }), EndsWith(reason))
            << text;
}

TEST(Node, KnowsItsPathAndPlaceAndOutlivesItsDocument) {
    const auto busy =
        NodeOf("# head\ncfg:\n  m4:\n    - cpu: 3\n      busy: {b: deep}\n")["cfg"]["m4"][0]["busy"];
    EXPECT_EQ(busy.GetPath(), "cfg.m4[0].busy");
    EXPECT_EQ(busy.GetWhere(), "test.yaml:5");
    EXPECT_EQ(busy["b"].As<std::string>(), "deep");
    EXPECT_EQ(PliConfigInstanceNode{}.GetKind(), PliConfigNodeKind::UNDEFINED);
}

TEST(Node, RefusesAnAccessToWhatItIsNot) {
    const auto cfg = NodeOf("cfg: {list: [1, 2], text: x, nothing: }")["cfg"];
    EXPECT_TRUE(cfg.Has("list"));
    EXPECT_FALSE(cfg.Has("List"));
    EXPECT_EQ(cfg["nothing"].GetKind(), PliConfigNodeKind::UNDEFINED);
    const auto list = cfg["list"];
    const auto text = cfg["text"];
    const std::pair<std::function<void()>, const char*> refusals[]{
        {[&] { cfg["busy"]; }, "Member busy not defined in node cfg"},
        {[&] { list[2]; }, "Element with index 2 not defined in node cfg.list"},
        {[&] { list[-1]; }, "Element with index -1 not defined in node cfg.list"},
        {[&] { static_cast<void>(text.Has("a")); },
         "Member existence by name is supported only on MAP nodes"},
        {[&] { list["a"]; }, "Member access by name not supported on non map nodes"},
        {[&] { cfg[0]; }, "Member access by index not supported on non sequence nodes"},
        {[&] { static_cast<void>(text.GetSize()); }, "GetSize() not supported on non sequence/map nodes"},
        {[&] { static_cast<void>(cfg.GetScalar()); },
         "Invalid access to scalar value, node type is not SCALAR"},
        {[&] { static_cast<void>(list.Keys()); }, "Invalid access to map value, node type is not MAP"},
        {[&] { *list.end(); }, "Iteration was already completed"},
        {[&] { ++list.end(); }, "Iteration was already completed"},
        {[&] { text.begin(); }, "Iteration over scalar/undefined nodes is not allowed"}};
    for (const auto& [call, expected] : refusals) EXPECT_EQ(TextOf<PliConfigError>(call), expected);
}

TEST(Iteration, WalksInTheOrderOfTheDocumentToItsEnd) {
    const auto cfg = NodeOf("cfg: {z: 1, a: [10, 20], m: []}")["cfg"];
    EXPECT_THAT(cfg.Keys(), ElementsAre("z", "a", "m"));
    std::vector<std::string> paths;
    for (const auto& value : cfg) paths.push_back(value.GetPath());
    for (const auto& element : cfg["a"]) paths.push_back(element.GetPath());
    EXPECT_THAT(paths, ElementsAre("cfg.z", "cfg.a", "cfg.m", "cfg.a[0]", "cfg.a[1]"));
    EXPECT_EQ(cfg["m"].begin(), cfg["m"].end());
}

TEST(Scalar, ConvertsIntegersWithinTheirRange) {
    EXPECT_EQ(Value("-2147483648").As<int>(), std::numeric_limits<int>::min());
    EXPECT_EQ(Value("2147483647").As<int>(), std::numeric_limits<int>::max());
    EXPECT_EQ(Value("255").As<unsigned char>(), 255);
    EXPECT_EQ(Value("18446744073709551615").As<unsigned long>(), std::numeric_limits<unsigned long>::max());
    EXPECT_EQ(Value("0x1F").As<int>(), 31);
    EXPECT_EQ(Value("0o17").As<int>(), 15);
    EXPECT_EQ(Value("+010").As<int>(), 10);
    EXPECT_EQ(Value("-0").As<unsigned int>(), 0U);
    ExpectRefusal<int>({"2147483648", "-2147483649"}, " is out of range");
    ExpectRefusal<unsigned char>({"300"}, " is out of range");
    ExpectRefusal<unsigned int>({"-1"}, " is out of range");
    ExpectRefusal<unsigned long>({"18446744073709551616"}, " is out of range");
    ExpectRefusal<int>({"12abc", "yes", "1.0", "1e3", "--1", "+-1", "0x", "1_000", "+"}, " is no integer");
}

TEST(Scalar, ConvertsRealsAndBooleans) {
    EXPECT_EQ(Value("0.1").As<float>(), 0.1F);
    EXPECT_EQ(Value("+.5").As<double>(), 0.5);
    EXPECT_EQ(Value("-.inf").As<float>(), -std::numeric_limits<float>::infinity());
    EXPECT_TRUE(std::isnan(Value(".nan").As<double>()));
    ExpectRefusal<float>({"1e39"}, " is out of range");
    ExpectRefusal<double>({"inf", "nan", "1.5x", "+-5", ".", "0x10", "1,5", "true"}, " is no number");
    for (const char* text : {"true", "True", "TRUE"}) EXPECT_TRUE(Value(text).As<bool>());
    for (const char* text : {"false", "False", "FALSE"}) EXPECT_FALSE(Value(text).As<bool>());
    ExpectRefusal<bool>({"yes", "on", "1", "tRUE", "truee"}, " is neither true nor false");
}

TEST(Scalar, TakesQuotedTextForTextAndOtherKindsForNoValue) {
    EXPECT_EQ(Value("'3'").As<std::string>(), "3");
    EXPECT_EQ(Value("'~'").As<std::string>(), "~");
    ExpectRefusal<bool>({"!!str true"}, "\"true\" is quoted, so it is text");
    const std::string start = "Data type conversion to int for node v failed, reason: ";
    ExpectRefusal<int>({"\"3\""}, start + "\"3\" is quoted, so it is text");
    ExpectRefusal<int>({"{a: 1}"}, start + "disallowed by converter");
    ExpectRefusal<std::string>({"~"}, "reason: disallowed by converter");
}

TEST(Matrix, IsFoundAndReadRowByRowAndTheLogSaysWhyANodeIsNone) {
    const auto matrix = Value("[[1, 2, 3], [4, 5, 6.5]]").As<Matrix>();
    EXPECT_EQ(matrix.GetRows(), 2U);
    EXPECT_EQ(matrix.GetColumns(), 3U);
    EXPECT_THAT(matrix.GetData(), ElementsAre(1, 2, 3, 4, 5, 6.5));
    EXPECT_EQ(Value("[]").As<Matrix>().GetData().size(), 0U);
    const std::string start =
        "Data type conversion to oru::experimental::datatypes::PliMatrix2D<double> for node v failed, "
        "reason: ";
    ExpectRefusal<Matrix>({"[[1, 2], [3, 4, 5]]", "[[1, [2]]]"}, start + "disallowed by converter");
    ExpectRefusal<Matrix>({"[[1, x]]"}, start + "\"x\" is no number");

    const LogCapture log;
    EXPECT_EQ(IsActualMatrix(Value("5")), std::nullopt);
    EXPECT_EQ(IsActualMatrix(Value("[]")), (Shape{{0, 0}}));
    EXPECT_EQ(IsActualMatrix(Value("[[1], {a: 1}]")), std::nullopt);
    EXPECT_EQ(IsActualMatrix(Value("[[1, 2], [3, 4], [5]]")), std::nullopt);
    EXPECT_THAT(
        log.Texts("IsActualMatrix: ", log4cplus::DEBUG_LOG_LEVEL),
        ElementsAre(EndsWith("dimensions are zero"), EndsWith("Member row is not a sequence ( it is 3"),
                    EndsWith("Member row 3 has incorrect size 1 expected: 2")));
}

}  // namespace
