// The socket of the applications: what they ask of a leg.
#include "Applications.h"

using Json = nlohmann::ordered_json;

void CApplications::take(CContext& context, CLegEvent event)
{
    const bool bFound = findLeg(context);
    if (!finish(context))
        return;
    if (!bFound)
        refuse(context, "no-such-call", "there is no such call");
    else
    {
        const std::shared_ptr<CLeg> pLeg = context.m_pRecord->m_pLeg;
        done(context, pLeg && !pLeg->isOver() && pLeg->take(event));
    }
}

void CApplications::ring(CContext& context)
{
    CLegEvent event = {ELegEvent::Ring};
    event.m_bMedia = context.m_fields.flag("media").value_or(false);
    take(context, event);
}

void CApplications::answerCall(CContext& context)
{
    take(context, {ELegEvent::Answer});
}

void CApplications::reject(CContext& context)
{
    CLegEvent event = {ELegEvent::Reject};
    event.m_nStatus = static_cast<int>(context.m_fields.neededNumber("status", 400, 699));
    context.m_fields.text("reason", 0, 128);
    take(context, event);
}

void CApplications::redirect(CContext& context)
{
    CLegEvent event = {ELegEvent::Redirect};
    event.m_strText = context.m_fields.neededText("uri", 5, 512);
    if (event.m_strText.find_first_of("<>\" \r\n\t") != std::string::npos)
        context.m_fields.fail("\"uri\" is no URI");
    take(context, event);
}

void CApplications::hangUp(CContext& context)
{
    CLegEvent event = {ELegEvent::HangUp};
    event.m_strText = "local";
    context.m_fields.text("reason", 0, 128);
    take(context, event);
}

void CApplications::hold(CContext& context)
{
    take(context, {ELegEvent::Hold});
}

void CApplications::resume(CContext& context)
{
    take(context, {ELegEvent::Resume});
}

void CApplications::transfer(CContext& context)
{
    const bool bFound = findLeg(context);
    const std::string strUri = context.m_fields.neededText("uri", 5, 512);
    if (strUri.rfind("sip", 0) != 0 || strUri.find_first_of("<>\" \r\n\t") != std::string::npos)
        context.m_fields.fail("\"uri\" must begin with sip: or sips:");
    if (!finish(context))
        return;
    if (!bFound)
        refuse(context, "no-such-call", "there is no such call");
    else
        done(context, context.m_pRecord->m_pLeg && context.m_pRecord->m_pLeg->transfer(strUri, ""));
}

void CApplications::transferTo(CContext& context)
{
    const bool bOther = findLeg(context, "other_call", "other_leg");
    const CLegRecord* pOther = context.m_pRecord;
    const bool bFound = findLeg(context);
    if (!finish(context))
        return;
    if (!bFound || !bOther)
        refuse(context, "no-such-call", "there is no such call");
    else
    {
        const bool bReady = context.m_pRecord->m_pLeg && pOther->m_pLeg && pOther->m_pLeg->isAnswered();
        done(context,
             bReady && context.m_pRecord->m_pLeg->transfer(pOther->m_pLeg->remoteUri(), pOther->m_pLeg->replaces()));
    }
}

// To the driver, whose answer is ours.
void CApplications::forward(CContext& context, const char* pName, Json fields)
{
    if (!context.m_pRecord || !context.m_pRecord->m_pLeg)
    {
        refuse(context, "no-such-call", "there is no such call");
        return;
    }
    m_calls.driver().request(
        pName, context.m_pRecord->m_name, std::move(fields),
        [this, nConnection = context.m_nConnection, nID = context.m_request.m_nID](const nlohmann::json& answer) {
            if (answer.value("ok", false))
            {
                m_server.answer(nConnection, nID);
                return;
            }
            const nlohmann::json error = answer.value("error", nlohmann::json::object());
            m_server.refuse(nConnection, nID, error.value("code", "failed"),
                            error.value("text", "refused by the driver"));
        });
}

void CApplications::bridge(CContext& context)
{
    const bool bOther = findLeg(context, "other_call", "other_leg");
    const CLegName other = bOther ? context.m_pRecord->m_name : CLegName{};
    const bool bFound = findLeg(context);
    if (!finish(context))
        return;
    if (!bFound || !bOther)
        refuse(context, "no-such-call", "there is no such call");
    else
        forward(context, "bridge", {{"other_call", other.m_strCall}, {"other_leg", other.m_uLeg}});
}

void CApplications::unbridge(CContext& context)
{
    findLeg(context);
    if (finish(context))
        forward(context, "unbridge", Json::object());
}

void CApplications::sendDigits(CContext& context)
{
    findLeg(context);
    Json fields = {{"digits", context.m_fields.neededText("digits", 1, 256)}};
    if (const auto nMs = context.m_fields.number("ms", 40, 10000))
        fields["ms"] = *nMs;
    if (finish(context))
        forward(context, "digits", std::move(fields));
}

void CApplications::collectDigits(CContext& context)
{
    const bool bFound = findLeg(context);
    CDigitCollection collection;
    collection.m_nMax = static_cast<size_t>(context.m_fields.neededNumber("max", 1, 256));
    collection.m_strTerminators = context.m_fields.text("terminators", 0, 16).value_or("");
    collection.m_uFirstMs = static_cast<unsigned>(context.m_fields.number("first_ms", 0, 3600000).value_or(0));
    collection.m_uNextMs = static_cast<unsigned>(context.m_fields.number("next_ms", 0, 3600000).value_or(0));
    if (!finish(context))
        return;
    if (!bFound)
        refuse(context, "no-such-call", "there is no such call");
    else
        done(context, context.m_pRecord->m_pLeg && context.m_pRecord->m_pLeg->collect(collection));
}

void CApplications::recordCall(CContext& context)
{
    findLeg(context);
    Json fields = {{"file", context.m_fields.neededText("file", 0, 4096)}};
    if (finish(context))
        forward(context, "record", std::move(fields));
}

void CApplications::set(CContext& context)
{
    findLeg(context);
    Json fields = Json::object();
    if (const auto strDigits = context.m_fields.text("interrupt_digits", 0, 32))
        fields["interrupt_digits"] = *strDigits;
    for (const char* pName : {"interrupt_speech", "speech"})
        if (const auto bValue = context.m_fields.flag(pName))
            fields[pName] = *bValue;
    if (finish(context))
        forward(context, "update", std::move(fields));
}
