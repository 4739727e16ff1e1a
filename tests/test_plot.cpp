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
    GenericSpec spec;
    spec.format = "Float";
    spec.chans = 4;
    spec.slices = 2500;
    spec.rate = 100;
    spec.names = {"A", "B", "M", "T"};
    spec.types = {0x400, 0x400, 0x200, 0x8000};
    spec.scales = {1, 1, 1, 1};
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
    for (int k = 0; k < 12; ++k)
        events += "\"Stimulus " + std::to_string(k) + "\" 1 " + std::to_string(300 + 5 * k) + "\n";  // name, code, slice
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

// The y of every point of a polyline, from the lane's centre line.
std::vector<double> Offsets(const ecXml& trace)
{
    const std::vector<double> xy = Numbers(trace.Sub("polyline").Attribute("points"));
    std::vector<double> y;
    for (size_t i = 1; i < xy.size(); i += 2)
        y.push_back(xy[i] - std::stod(trace.Sub("line").Attribute("y1")));
    return y;
}

double Span(const std::vector<double>& y)
{
    return *std::max_element(y.begin(), y.end()) - *std::min_element(y.begin(), y.end());
}

// Pixels per volt of a scale bar "<type> <number> <prefix>V".
double BarPixelsPerVolt(const ecXml& bar, const std::string& prefix, double factor)
{
    const std::vector<double> ends = {std::stod(bar.Sub("line").Attribute("y1")), std::stod(bar.Sub("line").Attribute("y2"))};
    const std::string text = bar.Sub("text").CharacterData();
    EXPECT_NE(text.find(" " + prefix + "V"), std::string::npos) << text;
    return (ends[1] - ends[0]) / (Numbers(text).at(0) * factor);
}

}  // namespace

// Refused names and pages leave the output as it was; pages are counted in the window's seconds.
TEST(Plot, RefusesBadRequestsAndCountsPages)
{
    TempDir dir;
    WriteRecording(dir);
    WriteTextFile(dir.path("old.svg"), "old");
    const struct {
        std::string out, options;
        int status;
        std::string says;  // in the output and, when written, in the page's title
    } cases[] = {
        {"r.png", "", 1, "plot writes SVG only: the output name must end in .svg, not \"r.png\""},
        {"old.svg", "", 1, "old.svg exists; --force replaces it"},
        {"r.dat", "--force", 1, "plot writes SVG only"},
        {"p.svg", "--duration 0", 1, "--duration must be a positive number of seconds"},
        {"p.svg", "--page 4", 1, "--page 4 is not among the 3 pages of 10 s"},
        {"p.svg", "--duration 4 --page 8", 1, "--page 8 is not among the 7 pages of 4 s"},
        {"p.svg", "", 0, "page 1 of 3, 0 to 10 s"},
        {"p2.SVG", "--duration 4 --page 7", 0, "page 7 of 7, 24 to 28 s"},
        {"p3.svg", "--first 500 --count 1000 --duration 2.5 --page 2", 0, "page 2 of 4, 7.5 to 10 s"},
        {"old.svg", "--force", 0, "page 1 of 3"},
    };
    for (const auto& c : cases) {
        const std::string before = ReadTextFile(dir.path(c.out));
        const auto [status, said] = Plot(dir, "r.dat --out " + c.out + " " + c.options);
        EXPECT_EQ(status, c.status) << c.options;
        if (status != 0) {
            EXPECT_NE(said.find(c.says), std::string::npos) << c.options << ":\n" << said;
            EXPECT_EQ(ReadTextFile(dir.path(c.out)), before);
            continue;
        }
        ecXml svg;
        ASSERT_TRUE(svg.Read(dir.path(c.out)));
        EXPECT_NE(svg.GetString("text").find(c.says), std::string::npos) << svg.GetString("text");
    }
}

// Traces of one type share a scale (B, twice A's amplitude, spans twice its height; the bar
// agrees) and are drawn about their mean; the trigger is a step per code; event labels do not
// overlap; a one-slice spike survives 2500 slices drawn in fewer columns.
TEST(Plot, ScalesStepsLabelsAndSpikes)
{
    TempDir dir;
    WriteRecording(dir);
    ASSERT_EQ(Plot(dir, "r.dat --out p.svg --duration 5").first, 0);
    ASSERT_EQ(Plot(dir, "r.dat --out whole.svg --duration 25 --channels M").first, 0);
    ecXml svg, whole;
    ASSERT_TRUE(svg.Read(dir.path("p.svg")));
    ASSERT_TRUE(whole.Read(dir.path("whole.svg")));
    std::map<std::string, std::vector<ecXml>> groups;  // by class and type
    for (const ecXml& g : svg.Children("g"))
        groups[g.Attribute("class") + " " + g.Attribute("data-type")].push_back(g);
    ASSERT_EQ(groups["scale EEG"].size(), 1u);
    ASSERT_EQ(groups["scale MEG"].size(), 1u);
    EXPECT_EQ(groups["scale trigger"].size(), 0u);

    const std::vector<double> a = Offsets(groups["trace EEG"].at(0)), b = Offsets(groups["trace EEG"].at(1));
    EXPECT_NEAR(Span(b) / Span(a), 2.0, 0.03);  // coordinates are drawn to a tenth of a pixel
    EXPECT_NEAR((*std::max_element(a.begin(), a.end()) + *std::min_element(a.begin(), a.end())) / 2, 0, 0.2);
    EXPECT_NEAR(BarPixelsPerVolt(groups["scale EEG"][0], "\u00b5", 1e-6), Span(a) / 20e-6, 0.03 * Span(a) / 20e-6);

    const std::vector<double> m = Offsets(whole.Children("g").at(0));
    const double spike = -*std::min_element(m.begin(), m.end());
    EXPECT_NEAR(spike / BarPixelsPerVolt(whole.Children("g").at(1), "p", 1e-12), 50e-12, 1e-12);

    const ecXml t = groups["trace trigger"].at(0);
    const std::string d = t.Sub("path").Attribute("d");
    ASSERT_TRUE(std::regex_match(d, std::regex(R"(M[0-9.]+,[0-9.]+(H[0-9.]+V[0-9.]+){4}H[0-9.]+)"))) << d;
    const std::vector<double> xy = Numbers(d);  // x0 y0 (zero), x y per step (3, 0, 5, 0), the end
    EXPECT_NEAR((xy[1] - xy[3]) / (xy[1] - xy[7]), 3.0 / 5, 0.01);
    std::vector<std::string> codes;
    for (const ecXml& text : t.Children("text"))
        codes.push_back(text.CharacterData());
    EXPECT_EQ(codes, (std::vector<std::string>{"T", "3", "5"}));

    const std::vector<ecXml>& events = groups["event "];
    ASSERT_EQ(events.size(), 12u);
    EXPECT_EQ(events[11].GetString("title"), "Stimulus 11");
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
