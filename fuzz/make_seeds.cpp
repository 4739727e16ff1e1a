// Writes the seed corpora of the fuzz targets: the small valid recordings of every row of the
// reader-case table, and a few XML texts. Usage: fuzz_make_seeds DIR (creates DIR/<target>/...).
#include <sys/stat.h>

#include <string>
#include <vector>

#include "fixtures/Bytes.h"
#include "fixtures/ReaderCases.h"

namespace {

std::string g_dir;

// Every seed also goes to the facade target, which sees each format under one name.
void Seed(const std::string& target, const std::string& name, const std::string& bytes)
{
    for (const std::string& folder : {target, std::string("facade")}) {
        mkdir((g_dir + "/" + folder).c_str(), 0755);
        Bytes().raw(bytes).write(g_dir + "/" + folder + "/" + (folder == target ? "" : target + "_") + name);
    }
}

void XmlSeeds()
{
    const std::string texts[] = {
        "?xml version=\"1.0\"?><ORVA_Header><NumChans>2</NumChans><ChannelList><Channel><Name>a&amp;b</Name>"
        "</Channel></ChannelList><!-- c --><![CDATA[x]]></ORVA_Header>",
        "ORVA_Calibration><bSkipCalib>0</bSkipCalib><CalEvtCodes><evt>1</evt></CalEvtCodes><CalFactorList><chan>"
        "<label>A</label><factor>2</factor><offset>1</offset></chan></CalFactorList></ORVA_Calibration>",
        "E><Event><Name>n</Name><Begin>1</Begin><End>2</End></Event><item><l>x</l><s>1</s></item></E>"};
    int k = 0;
    for (const std::string& t : texts)
        Seed("xml", "x" + std::to_string(k++), t);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return 1;
    g_dir = argv[1];
    mkdir(g_dir.c_str(), 0755);
    for (const ReaderCase& row : ReaderCases())
        for (const auto& [name, bytes] : row.seeds())
            Seed(row.name, name, bytes);
    XmlSeeds();
    return 0;
}
