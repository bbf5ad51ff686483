// A stream implementation on a CMIntf that is driven by hand.
#ifndef MEDIA_STREAM_FIXTURE_H
#define MEDIA_STREAM_FIXTURE_H

#include "Completions.h"
#include "ExpectedLines.h"
#include "MIntfFixture.h"
#include "PlatformSeams.h"
#include "ZelMediaServicesImpl.h"
#include "ZelMediaStreamImpl.h"

#include <functional>
#include <unistd.h>

class CMediaStreamTest : public CMIntfTest
{
protected:
    static constexpr int STREAM_ID = 5;
    static constexpr int CONNECTION = CONNECT_ID;
    static constexpr unsigned long UNTOUCHED = ~0UL;

    CMediaStreamTest() : m_services(&m_completions), m_pStream(std::make_unique<CZelMediaStreamImpl>()) {}

    // Nobody answers the closing of the stream or of a phrase file that is still open.
    ~CMediaStreamTest() override
    {
        if (m_pmintf->m_npipeReq != -1)
            disconnect();
        while (!m_pmintf->m_mapClipFileByID.empty())
            m_services.closePhraseFile(static_cast<unsigned long>(m_pmintf->m_mapClipFileByID.begin()->first));
    }

    // The public stream that owns the implementation: only told from others, never followed.
    static CZelMediaStream* publicStream() { return reinterpret_cast<CZelMediaStream*>(0x1234); }

    // Opens the stream; log and requests are empty afterwards.
    void open()
    {
        respondNext(MIRSP_OPENSTREAM, STREAM_ID);
        ASSERT_EQ(0, m_pStream->initialize(&m_services, publicStream(), "call-1", 1UL));
        takeRequests();
        m_pLog->clear();
    }

    // Opens a phrase file that the driver calls nDriverID; gives the library's id.
    unsigned long openPhraseFile(int nDriverID)
    {
        unsigned long ulFileID = UNTOUCHED;
        respondNext(MIRSP_OPENFILE, nDriverID);
        EXPECT_EQ(0, m_services.openPhraseFile(chars("/p/phrases.ul"), &ulFileID));
        takeRequests();
        m_pLog->clear();
        return ulFileID;
    }

    // Takes the only request that was sent.
    structMICMD takeOnlyRequest()
    {
        const std::vector<structMICMD> vRequests = takeRequests();
        EXPECT_EQ(1u, vRequests.size());
        return vRequests.empty() ? structMICMD() : vRequests.back();
    }

    // An accepted play, with the number of its request.
    uint32_t play(const char* pszFile = "/p/a.wav")
    {
        const uint32_t nSequenceNo = m_pmintf->m_nNextSequenceNo;
        if (m_pmintf->m_mapActiveCommandByStreamIDPlay.count(STREAM_ID) == 0)
            respondNext();
        EXPECT_EQ(0, m_pStream->playAddFile(chars(pszFile), 0, 60, 0, 0, 0));
        return nSequenceNo;
    }

    // The event thread's part when the driver ends a play.
    void end(uint32_t nSequenceNo, int32_t nStatus = 0)
    {
        m_pmintf->doneEventPass(structMIEVT{MIEVT_DONE, STREAM_ID, nSequenceNo, nStatus});
    }

    // Five late answers use up the tries of a request.
    void respondLateOnly()
    {
        for (int n = 0; n < 5; ++n)
            respond(0xFFFFFF00u);
    }

    const CMIntf::CCommand& activePlay() { return *m_pmintf->m_mapActiveCommandByStreamIDPlay.at(STREAM_ID); }
    const CMIntf::CCommand& activeRecord() { return *m_pmintf->m_mapActiveCommandByStreamIDRecord.at(STREAM_ID); }

    // The line that an operation wrote is the first one, and no later one comes from the stream.
    void expectOperationLine(const char* pszText)
    {
        const std::vector<CLogLine> vLines = m_pLog->lines();
        ASSERT_FALSE(vLines.empty());
        EXPECT_EQ(operationLine(pszText), vLines.front());
        EXPECT_EQ(1u, m_pLog->count("CZelMediaStreamImpl::"));
    }

    // The one line of an operation that has nothing to do with the driver, and its status.
    void expectOnlyLine(const char* pszText, int nStatusExpected, const std::function<int()>& operation)
    {
        m_pLog->clear();
        EXPECT_EQ(nStatusExpected, operation()) << pszText;
        EXPECT_EQ((std::vector<CLogLine>{operationLine(pszText)}), m_pLog->lines());
        EXPECT_TRUE(takeRequests().empty()) << pszText;
    }

    static char* chars(const char* psz) { return const_cast<char*>(psz); }

    CCompletions m_completions;
    CZelMediaServicesImpl m_services;
    std::unique_ptr<CZelMediaStreamImpl> m_pStream;
};

#endif
