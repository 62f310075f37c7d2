#include "tests/support/composer_fixture.h"

#include <algorithm>

void ComposerFixture::Make(LONG inputs, REFERENCE_TIME prerollPeriod) {
  HRESULT hr = S_OK;
  auto composer = std::make_unique<CCompose>(nullptr, &hr);
  composer_ = composer.get();
  filter_ = ComPtr<IBaseFilter>(composer.release());
  ASSERT_EQ(composer_->Configure(inputs, &logger_, kWidth, kHeight, 4, 3, prerollPeriod, {25, 1}),
            S_OK);
  graph_->AddFilter(filter_.Get(), u"composer");
  graph_->AddFilter(background_.Get(), u"background");
  graph_->AddFilter(sink_.Get(), u"sink");
  for (LONG i = 0; i < inputs; ++i) {
    windows_.push_back(fakes::Window::Create());
    sources_.push_back(fakes::Source::Create());
    graph_->AddFilter(sources_.back().Get(), u"channel");
    ASSERT_EQ(composer_->AddInput(i, static_cast<IComposeWindow*>(windows_.back().Get())), S_OK);
  }
}

void ComposerFixture::ConnectBackground(const CMediaType& type) {
  background_->pin.types = {type};
  background_->pin.wanted = {80, static_cast<LONG>(PictureBytes(kWidth, kHeight)), 32, 0};
  ASSERT_EQ(graph_->ConnectDirect(&background_->pin, composer_->GetPin(0), nullptr), S_OK);
}

void ComposerFixture::ConnectWindow(LONG index, LONG width, LONG height) {
  fakes::Source& source = *sources_[static_cast<std::size_t>(index)];
  source.pin.types = {fakes::Yv12Type(width, height, kFrame)};
  source.pin.wanted = {100, static_cast<LONG>(PictureBytes(width, height)), 32, 0};
  ASSERT_EQ(graph_->ConnectDirect(&source.pin, composer_->GetPin(2 + 6 * index), nullptr), S_OK);
}

void ComposerFixture::ConnectSink() {
  ASSERT_EQ(graph_->ConnectDirect(composer_->GetPin(1), &sink_->pin, nullptr), S_OK);
}

void ComposerFixture::MakeRunning(LONG inputs, LONG width, LONG height) {
  Make(inputs);
  ConnectBackground();
  for (LONG i = 0; i < inputs; ++i) {
    ConnectWindow(i, width, height);
  }
  ConnectSink();
  ASSERT_EQ(graph_->Run(0), S_OK);
}

ComPtr<fakes::Source> ComposerFixture::ConnectSide(int position, const CMediaType& type,
                                                   LONG bytes) {
  ComPtr<fakes::Source> source = fakes::Source::Create();
  source->pin.types = {type};
  source->pin.wanted = {100, bytes, 1, 0};
  EXPECT_GE(graph_->AddFilter(source.Get(), u"side"), 0);
  EXPECT_EQ(graph_->ConnectDirect(&source->pin, composer_->GetPin(position), nullptr), S_OK);
  sides_.push_back(source);
  return source;
}

ComPtr<fakes::Source> ComposerFixture::ConnectSide(int position) {
  CMediaType type;
  EXPECT_EQ(composer_->GetPin(position)->GetMediaType(0, &type), S_OK);
  return ConnectSide(position, type);
}

BYTE* ComposerFixture::Pixels(IMediaSample* sample) {
  BYTE* pixels = nullptr;
  sample->GetPointer(&pixels);
  return pixels;
}

HRESULT ComposerFixture::SendBackground(std::optional<REFERENCE_TIME> start, BYTE luma) {
  const ComPtr<IMediaSample> sample =
      start.has_value() ? background_->NewSample(start, *start + kFrame) : background_->NewSample();
  std::fill_n(Pixels(sample.Get()), kWidth * kHeight, luma);
  std::fill_n(Pixels(sample.Get()) + kWidth * kHeight, kWidth * kHeight / 2, BYTE{128});
  return background_->Send(sample.Get());
}

void ComposerFixture::SetPresent(REFERENCE_TIME start) {
  if (composer_->IsStopped()) {
    ASSERT_EQ(filter_->Pause(), S_OK);
  }
  ASSERT_EQ(SendBackground(start), S_OK);
  ASSERT_EQ(filter_->Pause(), S_OK);
}

ComPtr<IMediaSample> ComposerFixture::Compose(REFERENCE_TIME start, BYTE luma) {
  sink_->Forget();
  EXPECT_EQ(SendBackground(start, luma), S_OK);
  EXPECT_TRUE(sink_->WaitForSamples(1)) << "no composed frame has left for " << start;
  const std::vector<ComPtr<IMediaSample>> samples = sink_->Samples();
  return samples.empty() ? nullptr : samples.front();
}

HRESULT ComposerFixture::SendPicture(LONG index, REFERENCE_TIME start, BYTE luma) {
  fakes::Source& source = *sources_[static_cast<std::size_t>(index)];
  const ComPtr<IMediaSample> sample = source.NewSample(start, start + kFrame);
  std::fill_n(Pixels(sample.Get()), sample->GetSize(), luma);
  return source.Send(sample.Get());
}

void ComposerFixture::WaitForLine(const std::string& text) {
  EXPECT_TRUE(logger_.WaitForLine(text)) << "never logged: " << text;
}

void ComposerFixture::TearDown() {
  sink_->Forget();
  graph_->Stop();
  graph_.Reset();
  filter_.Reset();
  background_.Reset();
  sink_.Reset();
  sources_.clear();
  windows_.clear();
  sides_.clear();
  EXPECT_EQ(CUnknown::ObjectsActive(), 0) << "an object of the graph was leaked";
}
