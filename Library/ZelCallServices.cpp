// The public classes of libZelCallLib: hand everything on.
#include "ZelCallServices.h"

#include "ZelCallServicesImpl.h"

#include <new>
#include <utility>

namespace
{
// Nothing is thrown across the border of the library.
template <class OPERATION> CCSTATUS guarded(OPERATION operation) noexcept
{
    try
    {
        return operation();
    }
    catch (const std::exception&) // no memory, also for std::length_error of a text
    {
        return CCS_OUTOFMEMORY;
    }
}
} // namespace

CZelCallHandler::CZelCallHandler() = default;
CZelCallHandler::~CZelCallHandler() = default;
void CZelCallHandler::OnCallOffered(const CZelCallInfo&) {}
void CZelCallHandler::OnCallProgress(const CZelCallInfo&, int) {}
void CZelCallHandler::OnCallAnswered(const CZelCallInfo&) {}
void CZelCallHandler::OnCallDigit(const CZelCallInfo&, char, unsigned long) {}
void CZelCallHandler::OnCallDigits(const CZelCallInfo&, const std::string&, CC_DIGITS_END) {}
void CZelCallHandler::OnCallSpeech(const CZelCallInfo&, bool) {}
void CZelCallHandler::OnCallHeld(const CZelCallInfo&, bool) {}
void CZelCallHandler::OnCallTransferred(const CZelCallInfo&, int) {}
void CZelCallHandler::OnCallEnded(const CZelCallInfo&, CC_END_REASON, int) {}
void CZelCallHandler::OnRequestFailed(unsigned long, CCSTATUS, const std::string&) {}
void CZelCallHandler::OnControlLost() {}
void CZelCallHandler::OnControlRestored() {}
void CZelCallHandler::OnCallClaimed(const CZelCallInfo&) {}
void CZelCallHandler::OnCallRecorded(const CZelCallInfo&, const std::string&, bool) {}

CZelCallServices::CZelCallServices(CZelCallHandler* pHandler, std::string strRoute, std::string strSocket)
    : m_pImpl(std::make_shared<CZelCallServicesImpl>(pHandler, std::move(strRoute), std::move(strSocket)))
{
    CZelCallServicesImpl::start(m_pImpl);
}

CZelCallServices::~CZelCallServices()
{
    m_pImpl->stop();
}

CCSTATUS CZelCallServices::ring(const CZelCallInfo& call, bool bEarlyMedia, unsigned long* pulRequest)
{
    return guarded([&] { return m_pImpl->command(ECallCommand::Ring, call, {{"media", bEarlyMedia}}, pulRequest); });
}

CCSTATUS CZelCallServices::answer(const CZelCallInfo& call, unsigned long* pulRequest)
{
    return guarded([&] { return m_pImpl->command(ECallCommand::Answer, call, {}, pulRequest); });
}

CCSTATUS CZelCallServices::reject(const CZelCallInfo& call, int nSipStatus, unsigned long* pulRequest)
{
    if (nSipStatus < 400 || nSipStatus > 699)
        return CCS_BADARGUMENT;
    return guarded([&] { return m_pImpl->command(ECallCommand::Reject, call, {{"status", nSipStatus}}, pulRequest); });
}

CCSTATUS CZelCallServices::redirect(const CZelCallInfo& call, const std::string& strUri, unsigned long* pulRequest)
{
    return guarded([&] { return m_pImpl->command(ECallCommand::Redirect, call, {{"uri", strUri}}, pulRequest); });
}

CCSTATUS CZelCallServices::hangUp(const CZelCallInfo& call, unsigned long* pulRequest)
{
    return guarded([&] { return m_pImpl->command(ECallCommand::HangUp, call, {}, pulRequest); });
}

CCSTATUS CZelCallServices::hold(const CZelCallInfo& call, unsigned long* pulRequest)
{
    return guarded([&] { return m_pImpl->command(ECallCommand::Hold, call, {}, pulRequest); });
}

CCSTATUS CZelCallServices::resume(const CZelCallInfo& call, unsigned long* pulRequest)
{
    return guarded([&] { return m_pImpl->command(ECallCommand::Resume, call, {}, pulRequest); });
}

CCSTATUS CZelCallServices::transfer(const CZelCallInfo& call, const std::string& strUri, unsigned long* pulRequest)
{
    return guarded([&] { return m_pImpl->command(ECallCommand::Transfer, call, {{"uri", strUri}}, pulRequest); });
}

CCSTATUS CZelCallServices::transferTo(const CZelCallInfo& call, const CZelCallInfo& other, unsigned long* pulRequest)
{
    return guarded([&] { return m_pImpl->commandWithOther(ECallCommand::TransferTo, call, other, pulRequest); });
}

CCSTATUS CZelCallServices::dial(const std::string& strUri, const std::string& strFrom, CZelCallInfo* pCall)
{
    return guarded([&] { return m_pImpl->dial(strUri, strFrom, pCall); });
}

CCSTATUS CZelCallServices::bridge(const CZelCallInfo& call, const CZelCallInfo& other, unsigned long* pulRequest)
{
    return guarded([&] { return m_pImpl->commandWithOther(ECallCommand::Bridge, call, other, pulRequest); });
}

CCSTATUS CZelCallServices::unbridge(const CZelCallInfo& call, unsigned long* pulRequest)
{
    return guarded([&] { return m_pImpl->command(ECallCommand::Unbridge, call, {}, pulRequest); });
}

CCSTATUS CZelCallServices::sendDigits(const CZelCallInfo& call, const std::string& strDigits,
                                      unsigned long ulMilliseconds, unsigned long* pulRequest)
{
    if (strDigits.empty() || strDigits.find_first_not_of("0123456789*#ABCD") != std::string::npos)
        return CCS_BADARGUMENT;
    return guarded([&] {
        return m_pImpl->command(ECallCommand::SendDigits, call, {{"digits", strDigits}, {"ms", ulMilliseconds}},
                                pulRequest);
    });
}

CCSTATUS CZelCallServices::collectDigits(const CZelCallInfo& call, int nMax, const std::string& strTerminators,
                                         unsigned long ulFirstMs, unsigned long ulNextMs, unsigned long* pulRequest)
{
    return guarded([&] { return m_pImpl->collectDigits(call, nMax, strTerminators, ulFirstMs, ulNextMs, pulRequest); });
}

CCSTATUS CZelCallServices::recordCall(const CZelCallInfo& call, const std::string& strFile, unsigned long* pulRequest)
{
    return guarded([&] { return m_pImpl->command(ECallCommand::RecordCall, call, {{"file", strFile}}, pulRequest); });
}

std::vector<CZelCallInfo> CZelCallServices::calls() const
{
    try
    {
        return m_pImpl->calls();
    }
    catch (const std::bad_alloc&)
    {
        return {};
    }
}

CCSTATUS CZelCallServices::setInterrupts(const CZelCallInfo& call, const std::string& strDigits, bool bSpeech,
                                         bool bReportSpeech, unsigned long* pulRequest)
{
    return guarded([&] {
        return m_pImpl->command(
            ECallCommand::Set, call,
            {{"interrupt_digits", strDigits}, {"interrupt_speech", bSpeech}, {"speech", bReportSpeech}}, pulRequest);
    });
}

CCSTATUS CZelCallServices::claim(const std::string& strCallID, unsigned long* pulRequest)
{
    return guarded([&] { return m_pImpl->claim(strCallID, pulRequest); });
}
