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
    std::unique_ptr<CChannel> OpenChannel(CChannelFactory& channels, const std::string& strCallID, std::uint32_t nLegID,
                                          std::string& strError)
    {
        std::unique_ptr<CChannel> pOpened;
        channels.Open(strCallID, nLegID, [&](std::unique_ptr<CChannel> pChannel, const std::string& strReason) {
            pOpened = std::move(pChannel);
            strError = strReason;
        });
        return pOpened;
    }

    std::shared_ptr<CStream> OpenOn(std::unique_ptr<CChannel> pChannel, CExecutor& disk)
    {
        return std::make_shared<CStream>(5, "call", 1, std::move(pChannel), m_clock, disk,
                                         [this](bool bRecord, const structMIEVT& evt) {
                                             m_vEvents.push_back(evt);
                                             m_vSources.push_back(bRecord ? "record" : "play");
                                         });
    }

    std::shared_ptr<CStream> Open(const std::string& strCallID = "call", std::uint32_t nLegID = 1)
    {
        std::string strError;
        auto pChannel = OpenChannel(m_channels, strCallID, nLegID, strError);
        EXPECT_TRUE(pChannel) << strError;
        return OpenOn(std::move(pChannel), m_executor);
    }

    static std::shared_ptr<CClip> Clip(const CSamples& samples)
    {
        auto pClip = std::make_shared<CClip>("clip", samples.size());
        std::copy(samples.begin(), samples.end(), pClip->Room().begin());
        pClip->Publish(samples.size());
        pClip->End(false);
        return pClip;
    }

    // The error, empty when it has started.
    std::string StartRecord(CStream& stream, const std::string& strName, std::uint32_t nMaxSamples,
                            std::uint32_t nSequenceNo = 9)
    {
        std::string strResult = "never answered";
        stream.StartRecord(m_folder.Path(strName), nMaxSamples, nSequenceNo,
                           [&](bool bOk, const std::string& strError) { strResult = bOk ? "" : strError; });
        return strResult;
    }

    void Record(CStream& stream, const std::string& strName, std::uint32_t nMaxSamples, std::uint32_t nSequenceNo = 9)
    {
        EXPECT_EQ(StartRecord(stream, strName, nMaxSamples, nSequenceNo), "");
    }

    void CallerSays(const CSamples& samples) { WriteULaw(m_folder.Path("call.in.wav"), SF_FORMAT_WAV, samples); }

    void Ticks(int nTicks = 1)
    {
        for (int nTick = 0; nTick < nTicks; ++nTick)
        {
            m_clock.TickFast();
            m_clock.TickRealTime();
        }
    }

    // Ticks until the stream is idle.
    void Run(const CStream& stream)
    {
        for (int nTick = 0; nTick < 10000 && (stream.IsPlaying() || stream.IsRecording()); ++nTick)
        {
            Ticks();
        }
        EXPECT_FALSE(stream.IsPlaying() || stream.IsRecording());
    }

    CTempFolder m_folder;
    CLogCapture m_log;
    CInlineExecutor m_executor;
    CClipStore m_clipStore{m_executor};
    CFileChannelFactory m_channels{m_clipStore, m_executor, {m_folder.Folder(), false, false}};
    CMediaClock m_clock;
    std::vector<structMIEVT> m_vEvents;
    std::vector<std::string> m_vSources; // of the events
};

#endif
