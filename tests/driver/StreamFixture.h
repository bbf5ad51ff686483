// A stream on a file channel, its clock and its disk.
#ifndef STREAM_FIXTURE_H
#define STREAM_FIXTURE_H

#include "DriverTestSupport.h"
#include "FileChannel.h"
#include "MediaClock.h"
#include "Stream.h"

#include <gtest/gtest.h>

// Loading and writing happen at once.
class CStreamFixture : public testing::Test
{
protected:
    std::unique_ptr<CChannel> openChannel(CChannelFactory& channels, const std::string& strCallID, uint32_t nLegID,
                                          std::string& strError)
    {
        std::unique_ptr<CChannel> pOpened;
        channels.open(strCallID, nLegID, [&](std::unique_ptr<CChannel> pChannel, const std::string& strReason) {
            pOpened = std::move(pChannel);
            strError = strReason;
        });
        return pOpened;
    }

    std::shared_ptr<CStream> openOn(std::unique_ptr<CChannel> pChannel, CExecutor& disk)
    {
        return std::make_shared<CStream>(
            5, "call", 1, std::move(pChannel), m_clock, disk,
            [this](bool bRecord, const structMIEVT& evt) {
                m_vEvents.push_back(evt);
                m_vSources.push_back(bRecord ? "record" : "play");
            });
    }

    std::shared_ptr<CStream> open(const std::string& strCallID = "call", uint32_t nLegID = 1)
    {
        std::string strError;
        auto pChannel = openChannel(m_channels, strCallID, nLegID, strError);
        EXPECT_TRUE(pChannel) << strError;
        return openOn(std::move(pChannel), m_executor);
    }

    static std::shared_ptr<CClip> clip(const CSamples& samples)
    {
        auto pClip = std::make_shared<CClip>("clip", samples.size());
        std::copy(samples.begin(), samples.end(), pClip->room().begin());
        pClip->publish(samples.size());
        pClip->end(false);
        return pClip;
    }

    // The error, empty when it has started.
    std::string startRecord(CStream& stream, const std::string& strName, uint32_t nMaxSamples, uint32_t nSequenceNo = 9)
    {
        std::string strResult = "never answered";
        stream.startRecord(m_folder.path(strName), nMaxSamples, nSequenceNo,
                           [&](bool bOk, const std::string& strError) { strResult = bOk ? "" : strError; });
        return strResult;
    }

    void record(CStream& stream, const std::string& strName, uint32_t nMaxSamples, uint32_t nSequenceNo = 9)
    {
        EXPECT_EQ(startRecord(stream, strName, nMaxSamples, nSequenceNo), "");
    }

    void callerSays(const CSamples& samples) { writeULaw(m_folder.path("call.in.wav"), SF_FORMAT_WAV, samples); }

    void ticks(int nTicks = 1)
    {
        for (int nTick = 0; nTick < nTicks; ++nTick)
        {
            m_clock.tickFast();
            m_clock.tickRealTime();
        }
    }

    // Ticks until the stream is idle.
    void Run(const CStream& stream)
    {
        for (int nTick = 0; nTick < 10000 && (stream.isPlaying() || stream.isRecording()); ++nTick)
            ticks();
        EXPECT_FALSE(stream.isPlaying() || stream.isRecording());
    }

    CTempFolder m_folder;
    CLogCapture m_log;
    CInlineExecutor m_executor;
    CClipStore m_clipStore{m_executor};
    CFileChannelFactory m_channels{m_clipStore, m_executor, {m_folder.folder(), false, false}};
    CMediaClock m_clock;
    std::vector<structMIEVT> m_vEvents;
    std::vector<std::string> m_vSources; // of the events
};

#endif
