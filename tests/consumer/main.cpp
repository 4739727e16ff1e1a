// Embeds the installed library through its one public header, as an application would.
#include <cstdio>

#include "filelib/filelib.h"

int main()
{
    CFilelib facade;
    std::string none = "/nonexistent/recording.cnt";
    const int code = facade.GuessFileMFR(none);
    ecLabeledMatrix<float> block;
    block.resize(2, 3, 0, 0);
    std::printf("consumer: detection code %d, no reader -> %d channels, block %ldx%ld\n", code, facade.GetNumChans(),
                block.nrow(), block.ncol());
    return code == 0 && facade.GetNumChans() == 0 && block.ncol() == 3 ? 0 : 1;
}
