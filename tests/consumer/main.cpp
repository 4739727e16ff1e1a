#include <cstdio>

#include "filelib/ecFilebase.h"

class Tiny : public ecFilebase {
public:
    void Initialize(int) override { SetNumChans(2); }
    int ReadData(ecLabeledMatrix<float>&, int, int) override { return 0; }
    int InitialEventList(ecEventList*, ecProgressDlg*) override { return 0; }
};

int main()
{
    Tiny t;
    t.Initialize(0);
    std::string name;
    t.GetChanName(1, name);
    std::printf("consumer sees %d channels, second named %s\n", t.GetNumChans(), name.c_str());
    return t.GetNumChans() == 2 && name == "2" ? 0 : 1;
}
