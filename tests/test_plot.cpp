// The plot command, judged from the SVG text it writes.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <regex>

#include "companion/Xml.h"
#include "fixtures/GenericFiles.h"

namespace {

// Runs `filelib plot ARGS` inside `dir`; the status and what it printed.
std::pair<int, std::string> Plot(const TempDir& dir, const std::string& args)
{
    const std::string said = dir.path("said.txt");
    const std::string line = "cd '" + dir.dir() + "' && " FILELIB_TOOL_PATH " plot " + args + " >" + said + " 2>&1";
    const int raw = std::system(line.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadTextFile(said)};
}

// r.dat: 25 s at 100 Hz. EEG A: 10 uV at 5 Hz on a 1 mV offset; EEG B: 20 uV; MEG M: 1 pV with a
// one-slice spike of 50 pV at 12.34 s; trigger T: 3 from 1 s, 5 from 2 s, a tenth of a second
// each; twelve events 50 ms apart from 3 s, far closer than their labels are wide.
void WriteRecording(const TempDir& dir)
{
    const GenericSpec spec{"Float", true, "Continuous", 4, 2500, 0, 0, 100, {"A", "B", "M", "T"},
                           {0x400, 0x400, 0x200, 0x8000}, {1, 1, 1, 1}};
    std::vector<std::vector<double>> v(4, std::vector<double>(2500));
    for (size_t s = 0; s < 2500; ++s) {
        const double wave = std::sin(2 * M_PI * 5 * static_cast<double>(s) / 100);
        v[0][s] = 1e-3 + 10e-6 * wave;
        v[1][s] = 20e-6 * wave;
        v[2][s] = s == 1234 ? 50e-12 : 1e-12 * wave;
        v[3][s] = (s / 10 == 10) * 3 + (s / 10 == 20) * 5;
    }
    WriteGenericPair(dir, "r.dat", spec, v);
    std::string events;
    for (int k = 0; k < 12; ++k)  // name, code, slice
        events += "\"Stimulus " + std::to_string(k) + "\" 1 " + std::to_string(300 + 5 * k) + "\n";
    WriteTextFile(dir.path("r.dat.evt"), events);
}

std::vector<double> Numbers(const std::string& text)
{
    std::vector<double> out;
    std::regex number(R"(-?[0-9.]+)");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), number); it != std::sregex_iterator(); ++it)
        out.push_back(std::stod(it->str()));
    return out;
}

// The lowest and highest y of a trace's points, from its lane's centre line.
std::pair<double, double> Extent(const ecXml& trace)
{
    const std::vector<double> xy = Numbers(trace.Sub("polyline").Attribute("points"));
    const double center = std::stod(trace.Sub("line").Attribute("y1"));
    std::pair<double, double> e(INFINITY, -INFINITY);
    for (size_t i = 1; i < xy.size(); i += 2)
        e = {std::min(e.first, xy[i] - center), std::max(e.second, xy[i] - center)};
    return e;
}

// Pixels per volt of a scale bar "<type> <number> <prefix>V".
double BarPixelsPerVolt(const ecXml& bar, const std::string& prefix, double factor)
{
    const std::string text = bar.Sub("text").CharacterData();
    EXPECT_NE(text.find(" " + prefix + "V"), std::string::npos) << text;
    const double length = std::stod(bar.Sub("line").Attribute("y2")) - std::stod(bar.Sub("line").Attribute("y1"));
    return length / (Numbers(text).at(0) * factor);
}

}  // namespace

// Refused requests leave the output as it was; pages are counted in the window's seconds.
TEST(Plot, RefusesBadRequestsAndCountsPages)
{
    TempDir dir;
    WriteRecording(dir);
    WriteTextFile(dir.path("old.svg"), "old");
    const struct {
        std::string out, options;
        int status;
        std::string says;  // in the error, or in the page written
    } cases[] = {
        {"r.png", "", 1, "plot writes SVG only: the output name must end in .svg, not \"r.png\""},
        {"old.svg", "", 1, "old.svg exists; --force replaces it"},
        {"p.svg", "--duration 0", 1, "--duration must be a positive number of seconds"},
        {"p.svg", "--duration 4 --page 8", 1, "--page 8 is not among the 7 pages of 4 s"},
        {"p.svg", "", 0, "page 1 of 3, 0 to 10 s"},
        {"p2.SVG", "--duration 4 --page 7", 0, "page 7 of 7, 24 to 28 s"},
        {"p3.svg", "--first 500 --count 1000 --duration 2.5 --page 2", 0, "page 2 of 4, 7.5 to 10 s"},
        {"old.svg", "--force", 0, "page 1 of 3"},
    };
    for (const auto& c : cases) {
        const std::string before = ReadTextFile(dir.path(c.out));
        const auto [status, said] = Plot(dir, "r.dat --out " + c.out + " " + c.options);
        const std::string after = ReadTextFile(dir.path(c.out));
        EXPECT_EQ(status, c.status) << c.options;
        EXPECT_NE((status ? said : after).find(c.says), std::string::npos) << c.options << ":\n" << said;
        EXPECT_TRUE(status == 0 || after == before) << c.options;
    }
}

// One page of all 2500 slices, in fewer pixel columns. Traces of one type share a scale (B,
// twice A's amplitude, spans twice its height; the bar agrees) and are drawn about their mean;
// the one-slice spike survives; the trigger is a step per code; event labels do not overlap.
TEST(Plot, ScalesSpikesStepsAndLabels)
{
    TempDir dir;
    WriteRecording(dir);
    ASSERT_EQ(Plot(dir, "r.dat --out p.svg --duration 25").first, 0);
    ecXml svg;
    ASSERT_TRUE(svg.Read(dir.path("p.svg")));
    std::map<std::string, std::vector<ecXml>> groups;  // by class and type
    for (const ecXml& g : svg.Children("g"))
        groups[g.Attribute("class") + " " + g.Attribute("data-type")].push_back(g);
    EXPECT_EQ(groups["scale EEG"].size(), 1u);
    EXPECT_EQ(groups["scale MEG"].size(), 1u);
    EXPECT_EQ(groups.count("scale trigger"), 0u);

    const auto [aLow, aHigh] = Extent(groups["trace EEG"].at(0));
    const auto [bLow, bHigh] = Extent(groups["trace EEG"].at(1));
    EXPECT_NEAR((bHigh - bLow) / (aHigh - aLow), 2.0, 0.03);  // coordinates are drawn to a tenth of a pixel
    EXPECT_NEAR(aHigh + aLow, 0, 0.4);
    EXPECT_NEAR(BarPixelsPerVolt(groups["scale EEG"].at(0), "\u00b5", 1e-6) * 20e-6 / (aHigh - aLow), 1, 0.03);
    const double spike = -Extent(groups["trace MEG"].at(0)).first;
    EXPECT_NEAR(spike / BarPixelsPerVolt(groups["scale MEG"].at(0), "p", 1e-12), 50e-12, 1e-12);

    const ecXml t = groups["trace trigger"].at(0);
    const std::string d = t.Sub("path").Attribute("d");
    ASSERT_TRUE(std::regex_match(d, std::regex(R"(M[0-9.]+,[0-9.]+(H[0-9.]+V[0-9.]+){4}H[0-9.]+)"))) << d;
    const std::vector<double> xy = Numbers(d);  // x0 y0 (zero), x y per step (3, 0, 5, 0), the end
    EXPECT_NEAR((xy[1] - xy[3]) / (xy[1] - xy[7]), 3.0 / 5, 0.01);
    const std::vector<ecXml> texts = t.Children("text");  // the name, then the codes
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[1].CharacterData() + " " + texts[2].CharacterData(), "3 5");

    const std::vector<ecXml>& events = groups["event "];
    ASSERT_EQ(events.size(), 12u);
    std::map<double, std::vector<std::pair<double, double>>> rows;  // label spans by height
    for (const ecXml& e : events)
        for (const ecXml& label : e.Children("text"))
            rows[std::stod(label.Attribute("y"))].emplace_back(std::stod(label.Attribute("x")),
                                                               std::stod(label.Attribute("textLength")));
    size_t shown = 0;
    for (auto& [y, spans] : rows) {
        std::sort(spans.begin(), spans.end());
        for (size_t k = 1; k < spans.size(); ++k)
            EXPECT_LT(spans[k - 1].first + spans[k - 1].second, spans[k].first) << "row at " << y;
        shown += spans.size();
    }
    EXPECT_GE(shown, 3u);
    EXPECT_NE(ReadTextFile(dir.path("p.svg")).find(std::to_string(12 - shown) + " event labels left out"),
              std::string::npos);
}
