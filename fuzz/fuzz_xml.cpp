// Fuzz target: the XML reader on arbitrary text, then every lookup on what it parsed.
#include <string>

#include "companion/Xml.h"
#include "filelib/Calibration.h"
#include "filelib/ecBase.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text = "<" + std::string(reinterpret_cast<const char*>(data), size);
    ecXml xml;
    if (!xml.Read(text))
        return 0;
    xml.GetName();
    xml.GetInt("NumChans");
    xml.GetFloat("SampleRate");
    xml.GetBool("bDirtyFlag");
    xml.Sub("ChannelList").Children("Channel");
    char buf[16];
    int b = 0, e = 0;
    while (xml.CharacterDataNext(buf, "evt", sizeof buf, 0) >= 0) {
    }
    while (xml.GetBeginEnd(b, e, "Event", buf, sizeof buf, 0)) {
    }
    ecBase base;
    base.ReadXml(xml);
    ecLabeledState state;
    state.ReadXml(xml);
    ecCalibration cal;
    cal.ReadXml(xml);
    return 0;
}
