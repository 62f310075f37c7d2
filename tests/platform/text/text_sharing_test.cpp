#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "picture.h"
#include "platform/os/process.h"
#include "platform/text/text_painter.h"

namespace {

using os::TextPainter;

const std::vector<std::u16string>& Texts() {
  static const std::vector<std::u16string> texts{u"Channel 9", u"Новости", u"قناة", u"中央电视台",
                                                 u"📺 live",    u"ערוץ",    u"चैनल",  u"ニュース"};
  return texts;
}

TEST(TextSharing, PaintersWorkAtTheSameTimeOnAnyThread) {
  std::vector<Picture> expected;
  {
    TextPainter painter("Lucon.ttf");
    ASSERT_TRUE(painter.SetFont(u"No such family", 14));
    for (const std::u16string& text : Texts()) {
      expected.push_back(PaintLine(painter, text));
    }
  }
  constexpr std::size_t kThreads = 4;
  constexpr int kRounds = 6;
  // Made here, used and destroyed there; beside them painters of the thread's own come and go.
  std::vector<std::unique_ptr<TextPainter>> painters;
  for (std::size_t i = 0; i < kThreads; ++i) {
    painters.push_back(std::make_unique<TextPainter>(i % 2 == 0 ? "Lucon.ttf" : "NoSuchFont.ttf"));
  }
  std::vector<int> wrong(kThreads, 0);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i, painter = std::move(painters[i])] {
      painter->SetFont(u"DejaVu Sans Mono", 14);
      for (int round = 0; round < kRounds; ++round) {
        TextPainter own("Lucon.ttf");
        own.SetFont(u"No such family", 14);
        for (std::size_t t = 0; t < Texts().size(); ++t) {
          const std::size_t which = (t + i) % Texts().size();
          wrong[i] += PaintLine(*painter, Texts()[which]) == expected[which] ? 0 : 1;
          wrong[i] += PaintLine(own, Texts()[which]) == expected[which] ? 0 : 1;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, std::vector<int>(kThreads, 0));
}

TEST(TextSharing, ALibraryThatPaintsCanBeUnloadedAndLoadedAgain) {
  const std::string path =
      (std::filesystem::path(os::ProgramPath()).parent_path() / "text_module.so").string();
  std::vector<int> counts;
  for (int round = 0; round < 3; ++round) {
    const std::shared_ptr<os::Module> module = os::Module::Load(path);
    auto* const count = module->Find<int()>("CountTextPixels");
    ASSERT_NE(count, nullptr);
    counts.push_back(count());
  }
  EXPECT_GT(counts[0], 500);
  EXPECT_EQ(counts, std::vector<int>(3, counts[0]));
}

}  // namespace
