#include "companion/Units.h"

double VoltsPerUnit(const std::string& unit)
{
    static const struct {
        const char* text;
        double volts;
    } kVoltages[] = {
        {"V", 1.0},           {"mV", 1e-3},      {"uV", 1e-6}, {"\xC2\xB5V", 1e-6},
        {"\xCE\xBCV", 1e-6},  {"\xB5V", 1e-6},   {"nV", 1e-9},
    };
    for (const auto& v : kVoltages)
        if (unit == v.text)
            return v.volts;
    return 0.0;
}
