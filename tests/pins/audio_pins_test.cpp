#include <thread>

#include <gmock/gmock.h>

#include "platform/dshow/vfw_errors.h"
#include "tests/support/composer_fixture.h"
#include "tests/support/foreign_sample.h"

namespace {

class AudioPinsTest : public ComposerFixture {
 protected:
  static constexpr int kInput = 3;
  static constexpr int kOutput = 5;

  void SetUp() override {
    Make(1);
    ConnectBackground();
    ConnectWindow(0, 16, 16);
    ConnectSink();
    packets_ = ConnectSide(kInput, fakes::AudioType(MEDIASUBTYPE_DOLBY_AC3), 256);
    graph_->AddFilter(audioSink_.Get(), u"audio sink");
    audioSink_->pin.SetReconnectWhenActive(true);
  }
  void TearDown() override {
    audioSink_->Forget();
    audioSink_->Stop();
    audioSink_->pin.ownAllocator.Reset();
    packets_.Reset();
    audioSink_.Reset();
    ComposerFixture::TearDown();
  }
  CBaseOutputPin& Output() { return *static_cast<CBaseOutputPin*>(composer_->GetPin(kOutput)); }
  HRESULT ConnectOutput() { return Output().Connect(&audioSink_->pin, nullptr); }
  ComPtr<IMediaSample> Packet(std::optional<REFERENCE_TIME> start,
                              std::optional<REFERENCE_TIME> stop, std::string_view bytes) {
    ComPtr<IMediaSample> packet = packets_->NewSample(start, stop);
    std::copy(bytes.begin(), bytes.end(), Pixels(packet.Get()));
    packet->SetActualDataLength(static_cast<LONG>(bytes.size()));
    return packet;
  }
  static std::string Bytes(IMediaSample* sample) {
    return {reinterpret_cast<char*>(Pixels(sample)),
            static_cast<std::size_t>(sample->GetActualDataLength())};
  }

  ComPtr<fakes::Source> packets_;
  ComPtr<fakes::Sink> audioSink_ = fakes::Sink::Create();
};

TEST_F(AudioPinsTest, APacketLeavesWithItsBytesInStepWithTheFrames) {
  ASSERT_EQ(ConnectOutput(), S_OK);
  ASSERT_EQ(graph_->Run(0), S_OK);
  SendBackground(5000000);
  SendPicture(0, 0, 0);
  const ComPtr<IMediaSample> packet = Packet(1000000, 1200000, "compressed");
  packet->SetSyncPoint(TRUE);
  packet->SetPreroll(TRUE);
  packet->SetDiscontinuity(TRUE);
  REFERENCE_TIME mediaStart = 3;
  REFERENCE_TIME mediaStop = 4;
  packet->SetMediaTime(&mediaStart, &mediaStop);
  ASSERT_EQ(packets_->Send(packet.Get()), S_OK);
  ASSERT_EQ(packets_->Send(Packet(std::nullopt, std::nullopt, "untimed").Get()), S_OK);
  ASSERT_EQ(audioSink_->Count(), 2U);
  const auto samples = audioSink_->Samples();
  EXPECT_THAT(fakes::TimesOf(samples[0].Get()), testing::Pair(16000000, 16200000));
  EXPECT_EQ(Bytes(samples[0].Get()), "compressed");
  EXPECT_EQ(samples[0]->IsSyncPoint(), S_OK);
  EXPECT_EQ(samples[0]->IsPreroll(), S_OK);
  EXPECT_EQ(samples[0]->IsDiscontinuity(), S_OK);
  EXPECT_EQ(samples[0]->GetMediaTime(&mediaStart, &mediaStop), S_OK);
  EXPECT_EQ(mediaStop, 4);
  EXPECT_NE(Pixels(samples[0].Get()), Pixels(packet.Get())) << "a copy of its own";
  EXPECT_THAT(fakes::TimesOf(samples[1].Get()), testing::Pair(-1, -1));
  EXPECT_EQ(samples[1]->IsDiscontinuity(), S_FALSE);
  EXPECT_EQ(Bytes(samples[1].Get()), "untimed");
}

TEST_F(AudioPinsTest, TimesAtTheEndsOfTheirRangeWrapAround) {
  using Times = std::numeric_limits<REFERENCE_TIME>;
  ASSERT_EQ(ConnectOutput(), S_OK);
  ASSERT_EQ(graph_->Run(0), S_OK);
  SendPicture(0, Times::min(), 0);
  ASSERT_EQ(packets_->Send(Packet(Times::max(), Times::min(), "packet").Get()), S_OK);
  EXPECT_THAT(fakes::TimesOf(audioSink_->Samples().at(0).Get()), testing::Pair(9999999, 10000000));
}

// Grants whatever it is asked for, and hands out buffers of four bytes.
class LyingAllocator final : public fakes::StingyAllocator {
 public:
  LyingAllocator() : StingyAllocator(0, S_OK) {}
  HRESULT SetProperties(ALLOCATOR_PROPERTIES* request, ALLOCATOR_PROPERTIES* actual) override {
    *actual = *request;
    return S_OK;
  }
  HRESULT Commit() override { return S_OK; }
  HRESULT GetBuffer(IMediaSample** sample, REFERENCE_TIME*, REFERENCE_TIME*, DWORD) override {
    *sample = handsOut ? fakes::ForeignSample::Create(4).Detach() : nullptr;
    return S_OK;
  }

  bool handsOut = true;
};

TEST_F(AudioPinsTest, CopiesNoByteThatIsNotThere) {
  const ComPtr<LyingAllocator> allocator(std::make_unique<LyingAllocator>().release());
  audioSink_->pin.ownAllocator = ComPtr<IMemAllocator>(allocator.Get());
  ASSERT_EQ(ConnectOutput(), S_OK);
  ASSERT_EQ(graph_->Run(0), S_OK);
  EXPECT_EQ(packets_->Send(Packet(0, 1, "more than four").Get()), VFW_E_BUFFER_OVERFLOW);
  const ComPtr<fakes::ForeignSample> packet = fakes::ForeignSample::Create(3);
  for (const LONG length : {-1, 4, std::numeric_limits<LONG>::max()}) {
    packet->length = length;
    EXPECT_EQ(packets_->Send(packet.Get()), VFW_E_BUFFER_OVERFLOW) << length;
  }
  packet->length = 3;
  packet->hasBuffer = false;
  EXPECT_EQ(packets_->Send(packet.Get()), E_POINTER);
  allocator->handsOut = false;
  EXPECT_EQ(packets_->Send(packet.Get()), S_OK) << "as with no buffer at all";
  EXPECT_EQ(audioSink_->Count(), 0U);
}

TEST_F(AudioPinsTest, AcceptTheCompressedTypesOfTheProduct) {
  CBasePin& input = *composer_->GetPin(kInput);
  for (const auto& [major, subtype, accepted] :
       {std::tuple(MEDIATYPE_Audio, FourccGuid(0x50), S_OK),
        {MEDIATYPE_Audio, MEDIASUBTYPE_DOLBY_DDPLUS, S_OK},
        {MEDIATYPE_Audio, FourccGuid(0x1FF), S_OK},
        {MEDIATYPE_Audio, MEDIASUBTYPE_PCM, S_FALSE},
        {MEDIATYPE_Video, FourccGuid(0x50), S_FALSE}}) {
    const CMediaType type = fakes::TypeOf(major, subtype);
    EXPECT_EQ(input.CheckMediaType(&type), accepted) << GuidToString(subtype);
    EXPECT_EQ(Output().CheckMediaType(&type), major == MEDIATYPE_Audio ? S_OK : S_FALSE)
        << "the output is loose on purpose";
  }
}

TEST_F(AudioPinsTest, TheOutputTakesTypeAndBuffersFromItsInputOrIsRefused) {
  CMediaType type;
  ASSERT_EQ(Output().GetMediaType(0, &type), S_OK);
  EXPECT_EQ(type.subtype, MEDIASUBTYPE_DOLBY_AC3);
  EXPECT_EQ(Output().GetMediaType(0, nullptr), E_POINTER);
  ASSERT_EQ(ConnectOutput(), S_OK);
  ALLOCATOR_PROPERTIES in{};
  ALLOCATOR_PROPERTIES out{};
  packets_->pin.HeldAllocator()->GetProperties(&in);
  Output().HeldAllocator()->GetProperties(&out);
  EXPECT_EQ(std::pair(out.cBuffers, out.cbBuffer), std::pair(in.cBuffers, in.cbBuffer));
  EXPECT_EQ(Output().DecideBufferSize(fakes::StingyAllocator::Create(2).Get(), &out), E_FAIL);
  for (IPin* const pin : std::initializer_list<IPin*>{&Output(), &audioSink_->pin, &packets_->pin,
                                                      composer_->GetPin(kInput)}) {
    pin->Disconnect();
  }
  EXPECT_EQ(Output().Connect(&audioSink_->pin, &type), E_FAIL);
  EXPECT_FALSE(logger_.Texts().empty());
  EXPECT_THAT(
      logger_.Texts(),
      testing::Each(
          "Composer: output audio pin [0] was connected before the corresponding input pin"));
}

TEST_F(AudioPinsTest, NothingStallsUpstreamWhileTheOutputCannotTakeIt) {
  ASSERT_EQ(graph_->Run(0), S_OK);
  EXPECT_EQ(packets_->Send(Packet(0, 1, "lost").Get()), S_OK) << "no output";
  ASSERT_EQ(ConnectOutput(), S_OK);
  audioSink_->Run(0);
  EXPECT_EQ(packets_->Send(Packet(0, 1, "kept").Get()), S_OK);
  EXPECT_EQ(audioSink_->Count(), 1U) << "a connection made while running delivers at once";
  audioSink_->pin.onReceive = [](IMediaSample*) { return VFW_E_SAMPLE_REJECTED; };
  EXPECT_EQ(packets_->Send(Packet(0, 1, "bad").Get()), VFW_E_SAMPLE_REJECTED);
  ASSERT_EQ(graph_->Stop(), S_OK);
  EXPECT_EQ(packets_->Send(Packet(0, 1, "late").Get()), VFW_E_WRONG_STATE);
}

TEST_F(AudioPinsTest, MayBeUnpluggedAHundredTimesWhilePacketsFlow) {
  ASSERT_EQ(graph_->Run(0), S_OK);
  audioSink_->pin.onReceive = [](IMediaSample*) { return S_OK; };
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::thread streaming([&] {
    for (REFERENCE_TIME time = 0; !stop; ++time) {
      if (packets_->Send(Packet(time, time + 1, "packet").Get()) != S_OK) {
        ++failures;
      }
    }
  });
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(ConnectOutput(), S_OK);
    ASSERT_EQ(Output().Disconnect(), S_OK);
    ASSERT_EQ(audioSink_->pin.Disconnect(), S_OK);
  }
  stop = true;
  streaming.join();
  EXPECT_EQ(failures, 0) << "a packet that finds no output is dropped without a word upstream";
}

}  // namespace
