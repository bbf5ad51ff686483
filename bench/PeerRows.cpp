// The table's rows for scale: the exchange through what else a program could use.
#include "Rows.h"

void addPeerRows(std::vector<CSection>& vSections)
{
    CSection section;
    section.m_strTitle = "For scale: the same exchange by other means, against bare FIFOs";
    const auto addRow = [&section](const char* pText, const char* pProbe) {
        section.m_vRows.push_back({pText, pProbe, "exchange/bare", EGoal::None, 0.0, EUnit::Time, 0, true});
    };
    addRow("D-Bus, through a daemon of its own", "exchange/dbus");
    addRow("ZeroMQ, REQ and REP over ipc", "exchange/zeromq");
    vSections.push_back(section);
}
