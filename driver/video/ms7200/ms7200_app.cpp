#include "ms7200_app.h"

CMs7200App::CMs7200App(it6602_dev_data* record, DriverBase* bus) : m_record(record), m_bus(bus) {}
CMs7200App::~CMs7200App() = default;
void CMs7200App::SetupIndex(int) {}
bool CMs7200App::ms7200_CheckChipID()
{
    return false;
}
void CMs7200App::ms7200_init() {}
void CMs7200App::ms7200_loop() {}
int CMs7200App::stableCount() const
{
    return 0;
}
QVector<int> CMs7200App::eqGains() const
{
    return {};
}
