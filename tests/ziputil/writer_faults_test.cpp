// Every I/O call of adding an entry to an existing archive fails in turn: the
// call that met the failure throws the file system's own error (or, where
// minizip reports another code than -1, the writer's documented error), the
// writer stays closable, and what the archive holds afterwards is recorded.
#include "ziputil/CZipWriter.h"

#include "support/FaultyFileSystem.h"
#include "support/TempDir.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/MemoryFileSystem.h"
#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <vector>

using testsupport::CFaultyFileSystem;
using testsupport::CInjectedError;
using testsupport::entryURI;
using testsupport::utf8;

namespace {

/// The calls of adding one entry, in order.
enum Step { Construct, Begin, Write, StreamClose, WriterClose, Done };
char const* const kStepNames[] = {"construct", "begin", "write", "streamClose", "writerClose", "done"};

/// The writer's own error expected from each step (when minizip fails with another code than -1).
std::map<Step, std::string> const kWriterMessages{{Construct, "zipOpen2_64 failed"},
                                                  {Begin, "zipOpenNewFileInZip4_64 failed"},
                                                  {Write, "zipWriteInFileInZip failed"},
                                                  {StreamClose, "zipCloseFileInZip failed"},
                                                  {WriterClose, "zipClose failed"}};

/// What a reader finds in the archive: -1 when it cannot be opened or walked,
/// else the number of entries whose bytes are what was written.
int intactEntries(tal::IFileSystem* fs, tal::CURI const& uri) {
  try {
    auto reader = tal::newObj<ziputil::CZipReader>(fs, uri, tal::String());
    int intact = 0;
    while (reader->nextFile()) {
      std::string const name = utf8(reader->getCurrentFileRelativeURI().getPath());
      auto in = reader->openCurrentFileStream();
      std::string data(static_cast<std::size_t>(reader->getCurrentFileUncompressedSize()), '\0');
      if (!data.empty()) in->read(&data[0], static_cast<int>(data.size()));
      in->close();
      if (data == std::string(name == "new" ? 50000 : 20000, name[0])) ++intact;
    }
    return intact;
  } catch (tal::CError const&) {
    return -1;
  }
}

/// What one run with an armed fault gave.
struct Outcome {
  Step failedStep = Done; // the call that threw, Done if none did
  std::string kind;       // "injected", "writer", "" (nothing thrown)
  bool fired = false;
  int intact = 0;         // intactEntries afterwards
  bool untouched = false; // the archive's bytes are unchanged
};

class WriterFaultsBase {
protected:
  WriterFaultsBase() {
    auto writer = testsupport::newArchiveWriter(memory.get(), uri);
    testsupport::addEntry(*writer, "a", std::string(20000, 'a'));
    testsupport::addEntry(*writer, "b", std::string(20000, 'b'));
    writer->close();
    original = memory->getFile(uri);
  }

  /// Constructor, beginAddFile, ten writes, stream close, writer close; `step` tells which call is running.
  void addOne(Step& step) {
    step = Construct;
    writer = tal::newObj<ziputil::CZipWriter>(faulty.get(), uri, tal::String(), ziputil::CZipWriter::CompFastest);
    step = Begin;
    out = writer->beginAddFile(entryURI("new"), tal::CTimeFields(2020, 1, 2, 3, 4, 6, 0.0, 0, false));
    step = Write;
    std::string const data(50000, 'n');
    for (int at = 0; at < 50000; at += 5000) out->write(data.data() + at, 5000, nullptr);
    step = StreamClose;
    out->close();
    step = WriterClose;
    writer->close();
    step = Done;
  }

  /// Runs addOne with the nth call of `op` failing, checks the error seen and that the writer stays closable.
  Outcome run(CFaultyFileSystem::Op op, long long n) {
    memory->setFile(uri, original);
    faulty->reset();
    faulty->failNth(op, n);
    writer = nullptr;
    out = nullptr;
    Outcome outcome;
    Step step = Construct;
    try {
      addOne(step);
    } catch (CInjectedError const& e) {
      outcome.failedStep = step;
      outcome.kind = "injected";
      CInjectedError const expected = CFaultyFileSystem::injectedError(op, n, uri);
      EXPECT_EQ(typeid(e), typeid(CInjectedError));
      EXPECT_EQ(e.getCode(), expected.getCode());
      EXPECT_EQ(e.getMessage(), expected.getMessage());
      EXPECT_EQ(e.getContext(), expected.getContext());
      EXPECT_EQ(e.getProps(), expected.getProps());
    } catch (tal::CError const& e) {
      outcome.failedStep = step;
      outcome.kind = "writer";
      auto const message = kWriterMessages.find(step);
      EXPECT_EQ(utf8(e.getMessage()), message == kWriterMessages.end() ? "(no call)" : message->second) << "at " << n;
      EXPECT_EQ(e.getCode(), step == Write || step == StreamClose ? tal::CIOError::WriteFailed : -1);
      EXPECT_NE(utf8(e.getProps().get("result")), "-1") << utf8(e.getMessage()) << " at " << n;
    }
    outcome.fired = faulty->fired();
    if (writer) {
      try {
        writer->close();
      } catch (tal::CError const&) {
        // a failed close leaves the writer closed as well
      }
      EXPECT_NO_THROW(writer->close()) << "at " << n; // closed for good: the second close is quiet
    }
    if (out) {
      try {
        out->close();
      } catch (tal::CError const&) {
        // "archive has already been closed" when the writer closed under the stream
      }
      EXPECT_NO_THROW(out->close()) << "at " << n;
    }
    writer = nullptr;
    out = nullptr;
    faulty->failNth(op, 0);
    outcome.intact = intactEntries(memory.get(), uri);
    outcome.untouched = memory->getFile(uri) == original;
    return outcome;
  }

  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<CFaultyFileSystem> faulty = tal::newObj<CFaultyFileSystem>(memory.get());
  tal::CURI uri{tal::String("mem:/faults.zip")};
  std::string original;
  tal::P<ziputil::CZipWriter> writer;
  tal::P<tal::IOutStream> out;
};

class WriterFaultsTest : public WriterFaultsBase, public ::testing::TestWithParam<CFaultyFileSystem::Op> {};
class WriterFaultsRepresentativeTest : public WriterFaultsBase, public ::testing::Test {};

/// The call that met the nth fault of each operation ("-" where minizip absorbed it and nothing was thrown).
std::map<CFaultyFileSystem::Op, std::string> const kExpectedSteps{
    {CFaultyFileSystem::Open, "construct"},
    {CFaultyFileSystem::Read, "- construct*24"},
    {CFaultyFileSystem::Write, "begin*15 streamClose*4 writerClose*9"},
    {CFaultyFileSystem::Seek, "- - construct*5 streamClose*2"},
    {CFaultyFileSystem::Tell, "- - construct begin*2 streamClose writerClose"},
    {CFaultyFileSystem::Close, "writerClose"},
    {CFaultyFileSystem::Length, "- construct"},
};

TEST_P(WriterFaultsTest, EveryCallFailsInTurn) {
  CFaultyFileSystem::Op const op = GetParam();
  std::map<std::string, int> counts;
  std::ostringstream log;
  std::vector<std::string> seen;
  for (long long n = 1;; ++n) {
    Outcome const outcome = run(op, n);
    if (!outcome.fired) {
      EXPECT_EQ(outcome.failedStep, Done);
      EXPECT_EQ(outcome.intact, 3);
      break;
    }
    log << n << ":" << kStepNames[outcome.failedStep] << "/" << (outcome.kind.empty() ? "none" : outcome.kind)
        << "/" << outcome.intact << (outcome.untouched ? "/untouched" : "") << " ";
    ++counts[outcome.kind.empty() ? "silent" : outcome.kind];
    seen.push_back(outcome.kind.empty() ? "-" : kStepNames[outcome.failedStep]);
    if (outcome.kind.empty()) {
      // minizip absorbed the failure (a probe for a Zip64 end record): nothing may be lost
      EXPECT_EQ(outcome.intact, 3) << "at " << n;
    }
    if (outcome.untouched) ++counts["untouched"];
    if (outcome.intact >= 2) ++counts["oldEntriesIntact"];
    if (outcome.intact < 0) ++counts["unreadable"];
    ASSERT_LT(n, 10000);
  }
  std::string steps; // runs of the same step written as step*count
  for (std::size_t i = 0; i < seen.size();) {
    std::size_t j = i;
    while (j < seen.size() && seen[j] == seen[i] && seen[i] != "-") ++j;
    if (j == i) ++j;
    steps += (steps.empty() ? "" : " ") + seen[i] + (j - i > 1 ? "*" + std::to_string(j - i) : "");
    i = j;
  }
  for (auto const& [key, value] : counts) RecordProperty(key, value);
  RecordProperty("outcomes", log.str());
  // minizip maps none of these failures to a code of its own: every fault either reaches the caller as the
  // injected error itself or is absorbed without loss.
  EXPECT_EQ(counts["writer"], 0) << log.str();
  EXPECT_GT(counts["injected"], 0) << CFaultyFileSystem::opName(op);
  EXPECT_EQ(steps, kExpectedSteps.at(op)) << log.str();
}

/// Representative cases: what the archive holds after the failure.
TEST_F(WriterFaultsRepresentativeTest, FailedOpenLeavesTheArchiveUntouched) {
  Outcome const outcome = run(CFaultyFileSystem::Open, 1);
  EXPECT_EQ(outcome.failedStep, Construct);
  EXPECT_EQ(outcome.kind, "injected");
  EXPECT_TRUE(outcome.untouched);
  EXPECT_EQ(outcome.intact, 2);
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Write), 0);
}

TEST_F(WriterFaultsRepresentativeTest, FailedReadOfTheCentralDirectoryLeavesTheArchiveUntouched) {
  Outcome const outcome = run(CFaultyFileSystem::Read, 2);
  EXPECT_EQ(outcome.failedStep, Construct);
  EXPECT_TRUE(outcome.untouched);
  EXPECT_EQ(outcome.intact, 2);
}

TEST_F(WriterFaultsRepresentativeTest, FailedLocalHeaderWriteKeepsTheOldEntries) {
  Outcome const outcome = run(CFaultyFileSystem::Write, 1);
  EXPECT_EQ(outcome.failedStep, Begin);
  EXPECT_EQ(outcome.kind, "injected");
  EXPECT_EQ(outcome.intact, 2); // the new entry is lost, the old ones are readable
  testsupport::TempDir dir;
  testsupport::writeFile(dir.file("after.zip"), memory->getFile(uri));
  EXPECT_EQ(testsupport::runPython("import sys,zipfile; z=zipfile.ZipFile(sys.argv[1]);"
                                   " print(z.namelist(), z.testzip())",
                                   {dir.file("after.zip")}),
            "['a', 'b'] None\n");
}

TEST_F(WriterFaultsRepresentativeTest, FailedWriteWhileFinishingTheEntryLeavesAnUnreadableArchive) {
  Outcome const outcome = run(CFaultyFileSystem::Write, 16);
  EXPECT_EQ(outcome.failedStep, StreamClose);
  EXPECT_EQ(outcome.kind, "injected");
  EXPECT_EQ(outcome.intact, -1);
  EXPECT_FALSE(outcome.untouched);
}

TEST_F(WriterFaultsRepresentativeTest, FailedFinalCloseKeepsEverything) {
  Outcome const outcome = run(CFaultyFileSystem::Close, 1);
  EXPECT_EQ(outcome.failedStep, WriterClose);
  EXPECT_EQ(outcome.kind, "injected");
  EXPECT_EQ(outcome.intact, 3); // all bytes were written before the stream's close failed
}

TEST_F(WriterFaultsRepresentativeTest, AbsorbedProbeLosesNothing) {
  Outcome const outcome = run(CFaultyFileSystem::Length, 1);
  EXPECT_TRUE(outcome.fired);
  EXPECT_EQ(outcome.failedStep, Done);
  EXPECT_EQ(outcome.kind, "");
  EXPECT_EQ(outcome.intact, 3);
}

INSTANTIATE_TEST_SUITE_P(Ops, WriterFaultsTest,
                         ::testing::Values(CFaultyFileSystem::Open, CFaultyFileSystem::Read, CFaultyFileSystem::Write,
                                           CFaultyFileSystem::Seek, CFaultyFileSystem::Tell, CFaultyFileSystem::Close,
                                           CFaultyFileSystem::Length),
                         [](auto const& info) { return std::string(CFaultyFileSystem::opName(info.param)); });

} // namespace
