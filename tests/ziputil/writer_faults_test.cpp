// Every I/O call of adding an entry to an existing archive fails in turn, in
// place and when replacing the archive atomically: the call that met the
// failure throws the file system's own error unchanged. Replacing atomically,
// no later call succeeds; in place, a failed entry is taken back and the
// writer's close then commits the archive without it (a failed close puts the
// file back). Either way the archive is byte for byte what it was (and no copy
// is left beside it), and its old entries read back with this reader and
// Python's.
#include "ziputil/CZipWriter.h"

#include "support/FaultyFileSystem.h"
#include "support/StreamChecks.h"
#include "support/TempDir.h"
#include "support/TestFileSystems.h"
#include "support/WriterChecks.h"
#include "support/ZipFixtures.h"
#include "support/ZipWriteFixtures.h"
#include "tal/MemoryFileSystem.h"
#include "ziputil/CZipReader.h"

#include <gtest/gtest.h>

#include <iostream>
#include <utility>
#include <map>
#include <set>
#include <sstream>
#include <tuple>
#include <vector>

using testsupport::CFaultyFileSystem;
using testsupport::CInjectedError;
using testsupport::entryURI;
using testsupport::utf8;

namespace {

/// The calls of adding one entry, in order.
enum Step { Construct, Begin, Write, StreamClose, WriterClose, Done };
char const* const kStepNames[] = {"construct", "begin", "write", "streamClose", "writerClose", "done"};

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
  } catch (tal::CError const& e) {
    ADD_FAILURE() << "the reader failed: " << e.what();
    return -1;
  }
}

/// What one run with an armed fault gave.
struct Outcome {
  Step failedStep = Done; // the call that threw, Done if none did
  bool fired = false;
  bool injected = false;   // what was thrown is the injected error, unchanged
  bool onCopy = false;     // the fault hit the copy (replacing atomically)
  int intact = 0;          // intactEntries afterwards
  bool untouched = false;  // the archive's bytes are unchanged
  bool noCopyLeft = false; // no file but the archive exists
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
  void addOne(Step& step, bool atomic) {
    step = Construct;
    ziputil::CZipWriter::Options options;
    options.atomicReplace = atomic;
    writer = tal::newObj<ziputil::CZipWriter>(faulty.get(), uri, tal::String(), ziputil::CZipWriter::CompFastest,
                                              options);
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

  /// After a failure with `error` at `step`: replacing atomically (or when the writer's close failed), every
  /// later call that would write refuses; in place, after a failed entry, the entry's close reports the same
  /// failure and the writer's close succeeds.
  void finishAfterFailure(Step step, long long n, bool atomic, tal::CError const& error) {
    if (!writer) return;
    bool const gaveUp = atomic || step == WriterClose;
    if (step == Write && gaveUp) {
      try {
        out->write("x", 1, nullptr);
        ADD_FAILURE() << "a write after the failure succeeded, at " << n;
      } catch (tal::CError const& e) {
        tal::CIOError const closed(tal::CIOError::WriteFailed,
                                   tal::String("Cannot write file in ZIP archive - archive has already been closed"),
                                   tal::uriProps(uri << entryURI("new")), nullptr);
        testsupport::expectSameError(e, tal::CFileSystemError(tal::CFileSystemError::Unspecified, closed));
      }
    } else if (step == Write) {
      try {
        out->close();
        ADD_FAILURE() << "the failed entry's close succeeded, at " << n;
      } catch (tal::CError const& e) {
        testsupport::expectSameError(e, error);
      }
    }
    if (step == StreamClose || step == Write) {
      testsupport::expectIOError([&] { out->write("x", 1, nullptr); }, tal::CIOError::StreamClosed,
                                 tal::CIOError::getDefaultMessage(tal::CIOError::StreamClosed).toUTF8(),
                                 tal::CProps());
    }
    if (out) {
      EXPECT_NO_THROW(out->close()) << "at " << n;
    }
    if (!gaveUp) {
      EXPECT_NO_THROW(writer->close()) << "at " << n;
      return;
    }
    testsupport::expectIOError([&] { writer->beginAddFile(entryURI("late"), tal::CTimeFields()); },
                               tal::CIOError::StreamClosed, "ZIP file already closed", uri);
    if (step != WriterClose) {
      // The writer gave up everything: its first close says so.
      try {
        writer->close();
        ADD_FAILURE() << "close after giving up succeeded, at " << n;
      } catch (tal::CError const& e) {
        testsupport::expectSameError(e, error);
      }
    }
    EXPECT_NO_THROW(writer->close()) << "at " << n;
    EXPECT_NO_THROW(writer->discard()) << "at " << n;
  }

  /// Runs addOne with the nth call of `op` failing and checks what the caller sees.
  Outcome run(CFaultyFileSystem::Op op, long long n, bool atomic) {
    memory->setFile(uri, original);
    recording->clear();
    faulty->reset();
    faulty->failNth(op, n);
    writer = nullptr;
    out = nullptr;
    Outcome outcome;
    Step step = Construct;
    tal::P<tal::CError> error;
    try {
      addOne(step, atomic);
    } catch (tal::CError const& e) {
      error = e.clone();
      outcome.failedStep = step;
      // The fault hit the archive, or its copy when replacing atomically: the stream's (or move's source's) URI.
      std::string const where = utf8(e.getProps().get("uri"));
      outcome.onCopy = where != utf8(uri.toString(true));
      CInjectedError const expected =
          CFaultyFileSystem::injectedError(op, n, outcome.onCopy ? tal::CURI(tal::String::fromUTF8(where)) : uri);
      testsupport::expectSameError(e, expected);
      outcome.injected = typeid(e) == typeid(CInjectedError) && e.getMessage() == expected.getMessage() &&
                         e.getProps() == expected.getProps();
      if (outcome.onCopy) {
        EXPECT_TRUE(atomic) << where << " at " << n;
        EXPECT_TRUE(testsupport::isCopyOf(where, "mem:/faults.zip")) << where;
      }
    }
    outcome.fired = faulty->fired();
    faulty->failNth(op, 0);
    if (error) finishAfterFailure(outcome.failedStep, n, atomic, *error);
    writer = nullptr;
    out = nullptr;
    outcome.intact = intactEntries(memory.get(), uri);
    outcome.untouched = memory->getFile(uri) == original;
    // Of the files the writer opened (or tried to), only the archive may exist.
    std::set<std::string> left = recording->existing();
    left.erase(utf8(uri.toString(true)));
    outcome.noCopyLeft = left.empty();
    return outcome;
  }

  tal::P<tal::CMemoryFileSystem> memory = tal::newObj<tal::CMemoryFileSystem>();
  tal::P<testsupport::CRecordingFileSystem> recording = tal::newObj<testsupport::CRecordingFileSystem>(memory.get());
  tal::P<CFaultyFileSystem> faulty = tal::newObj<CFaultyFileSystem>(recording.get());
  tal::CURI uri{tal::String("mem:/faults.zip")};
  std::string original;
  tal::P<ziputil::CZipWriter> writer;
  tal::P<tal::IOutStream> out;
};

std::string paramName(std::tuple<CFaultyFileSystem::Op, bool> const& param) {
  return std::string(CFaultyFileSystem::opName(std::get<0>(param))) + (std::get<1>(param) ? "Atomic" : "InPlace");
}

class WriterFaultsTest : public WriterFaultsBase,
                         public ::testing::TestWithParam<std::tuple<CFaultyFileSystem::Op, bool>> {
public:
  /// Python reads the sampled archives of all the suite's tests at once: one interpreter start, not one per test.
  static void TearDownTestSuite() {
    if (sampled().empty()) return;
    testsupport::TempDir dir("ziputil-faults");
    std::vector<std::string> paths;
    for (auto const& [label, bytes] : sampled()) {
      paths.push_back(dir.file(label + ".zip"));
      testsupport::writeFile(paths.back(), bytes);
    }
    std::vector<std::string> const verdicts = testsupport::pythonVerdicts(paths);
    EXPECT_EQ(verdicts.size(), paths.size());
    for (std::size_t i = 0; i < verdicts.size() && i < paths.size(); ++i)
      EXPECT_EQ(verdicts[i], "a,b None") << "after fault " << sampled()[i].first;
    sampled().clear();
  }

protected:
  /// The archives after a sample of the faults: "<op><path>-<n>" and the archive's bytes.
  static std::vector<std::pair<std::string, std::string>>& sampled() {
    static std::vector<std::pair<std::string, std::string>> archives;
    return archives;
  }
};
class WriterFaultsRepresentativeTest : public WriterFaultsBase, public ::testing::Test {};

/// The call that met the nth fault of each operation, in place and atomically
/// (runs of the same call written as call*count; "@copy" where the fault hit
/// the copy rather than the archive).
std::map<std::tuple<CFaultyFileSystem::Op, bool>, std::string> const kExpectedSteps{
    {{CFaultyFileSystem::Open, false}, "construct"}, // the archive is opened once
    {{CFaultyFileSystem::Read, false}, "construct*27"},
    {{CFaultyFileSystem::Write, false}, "begin*15 streamClose*6 writerClose*9"},
    {{CFaultyFileSystem::Seek, false}, "construct*10 streamClose*3"},
    {{CFaultyFileSystem::Tell, false}, "construct*4 begin*3 streamClose writerClose*2"},
    {{CFaultyFileSystem::Close, false}, "writerClose"},
    {{CFaultyFileSystem::Length, false}, "construct*3"},
    {{CFaultyFileSystem::Sync, false}, ""},
    {{CFaultyFileSystem::Move, false}, ""},
    {{CFaultyFileSystem::Open, true}, "construct construct@copy*2"},
    {{CFaultyFileSystem::Read, true}, "construct*4 construct@copy*25"},
    {{CFaultyFileSystem::Write, true}, "construct@copy begin@copy*15 streamClose@copy*6 writerClose@copy*9"},
    {{CFaultyFileSystem::Seek, true}, "construct*3 construct@copy*7 streamClose@copy*3"},
    {{CFaultyFileSystem::Tell, true}, "construct@copy*3 begin@copy*3 streamClose@copy writerClose@copy*2"},
    {{CFaultyFileSystem::Close, true}, "construct@copy construct writerClose@copy"},
    {{CFaultyFileSystem::Length, true}, "construct construct@copy*2"},
    {{CFaultyFileSystem::Sync, true}, "construct@copy writerClose@copy"}, // the copy, then the finished archive
    {{CFaultyFileSystem::Move, true}, "writerClose@copy"},
};

TEST_P(WriterFaultsTest, EveryCallFailsInTurn) {
  CFaultyFileSystem::Op const op = std::get<0>(GetParam());
  bool const atomic = std::get<1>(GetParam());
  std::map<std::string, int> counts;
  std::ostringstream log;
  std::vector<std::string> seen;
  int pythonSamples = 0;
  for (long long n = 1;; ++n) {
    Outcome const outcome = run(op, n, atomic);
    if (!outcome.fired) {
      EXPECT_EQ(outcome.failedStep, Done);
      EXPECT_EQ(outcome.intact, 3);
      EXPECT_TRUE(outcome.noCopyLeft);
      break;
    }
    ++counts["faults"];
    log << n << ":" << kStepNames[outcome.failedStep] << (outcome.onCopy ? "@copy" : "") << "/" << outcome.intact
        << (outcome.untouched ? "/untouched" : "") << " ";
    seen.push_back(std::string(kStepNames[outcome.failedStep]) + (outcome.onCopy ? "@copy" : ""));
    // Every fault reaches the caller, as the injected error itself, and the archive is as it was.
    EXPECT_NE(outcome.failedStep, Done) << "a fault was passed over, at " << n;
    EXPECT_TRUE(outcome.injected) << "at " << n;
    EXPECT_TRUE(outcome.untouched) << "at " << n;
    EXPECT_EQ(outcome.intact, 2) << "at " << n;
    EXPECT_TRUE(outcome.noCopyLeft) << "at " << n;
    if (outcome.injected) ++counts["injected"];
    if (outcome.untouched) ++counts["untouched"];
    if (outcome.intact == 2) ++counts["oldEntriesIntact"];
    if (n == 1 || n % 5 == 0) { // Python reads these after the suite (TearDownTestSuite)
      sampled().emplace_back(paramName(GetParam()) + "-" + std::to_string(n), memory->getFile(uri));
      ++pythonSamples;
    }
    ASSERT_LT(n, 10000);
  }
  std::string steps; // runs of the same step written as step*count
  for (std::size_t i = 0; i < seen.size();) {
    std::size_t j = i;
    while (j < seen.size() && seen[j] == seen[i]) ++j;
    steps += (steps.empty() ? "" : " ") + seen[i] + (j - i > 1 ? "*" + std::to_string(j - i) : "");
    i = j;
  }
  counts["pythonChecked"] = pythonSamples;
  for (auto const& [key, value] : counts) RecordProperty(key, value);
  RecordProperty("outcomes", log.str());
  std::cout << "[ faults   ] " << paramName(GetParam()) << ": " << counts["faults"] << " injected, "
            << counts["untouched"] << " left the archive byte-identical, " << counts["oldEntriesIntact"]
            << " with both old entries intact, " << counts["pythonChecked"] << " checked by Python" << std::endl;
  bool const reachable = atomic || (op != CFaultyFileSystem::Sync && op != CFaultyFileSystem::Move);
  EXPECT_EQ(counts["faults"] > 0, reachable) << CFaultyFileSystem::opName(op);
  EXPECT_EQ(steps, kExpectedSteps.at(GetParam())) << log.str();
}

/// Representative cases, spelled out.
TEST_F(WriterFaultsRepresentativeTest, FailedOpenLeavesTheArchiveUntouched) {
  Outcome const outcome = run(CFaultyFileSystem::Open, 1, false);
  EXPECT_EQ(outcome.failedStep, Construct);
  EXPECT_TRUE(outcome.injected);
  EXPECT_TRUE(outcome.untouched);
  EXPECT_EQ(outcome.intact, 2);
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Write), 0);
}

TEST_F(WriterFaultsRepresentativeTest, FailedReadOfTheCentralDirectoryLeavesTheArchiveUntouched) {
  Outcome const outcome = run(CFaultyFileSystem::Read, 2, false);
  EXPECT_EQ(outcome.failedStep, Construct);
  EXPECT_TRUE(outcome.injected);
  EXPECT_TRUE(outcome.untouched);
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Write), 0);
}

TEST_F(WriterFaultsRepresentativeTest, FailedLocalHeaderWriteLeavesTheArchiveAsItWas) {
  Outcome const outcome = run(CFaultyFileSystem::Write, 1, false);
  EXPECT_EQ(outcome.failedStep, Begin);
  EXPECT_TRUE(outcome.injected);
  EXPECT_TRUE(outcome.untouched);
  EXPECT_EQ(outcome.intact, 2);
  testsupport::TempDir dir;
  testsupport::writeFile(dir.file("after.zip"), memory->getFile(uri));
  EXPECT_EQ(testsupport::pythonVerdicts({dir.file("after.zip")}), std::vector<std::string>{"a,b None"});
}

TEST_F(WriterFaultsRepresentativeTest, FailedWriteWhileFinishingTheEntryLeavesTheArchiveAsItWas) {
  // Once made the archive unreadable: the local header and deflate's last output were half written.
  Outcome const outcome = run(CFaultyFileSystem::Write, 16, false);
  EXPECT_EQ(outcome.failedStep, StreamClose);
  EXPECT_TRUE(outcome.injected);
  EXPECT_TRUE(outcome.untouched);
  EXPECT_EQ(outcome.intact, 2);
}

TEST_F(WriterFaultsRepresentativeTest, FailedFinalCloseTakesTheNewEntryBack) {
  // Every byte was written before the archive stream's close failed; the writer still puts the file back,
  // since it cannot know what the failed close lost. (The archive's stream is the only one the writer opens.)
  Outcome const outcome = run(CFaultyFileSystem::Close, 1, false);
  EXPECT_EQ(outcome.failedStep, WriterClose);
  EXPECT_TRUE(outcome.injected);
  EXPECT_TRUE(outcome.untouched);
  EXPECT_EQ(outcome.intact, 2);
}

TEST_F(WriterFaultsRepresentativeTest, FailedProbeForTheEndRecordIsNoLongerPassedOver) {
  // minizip carries on when asking for the file's length fails while it looks for a Zip64 end record.
  Outcome const outcome = run(CFaultyFileSystem::Length, 1, false);
  EXPECT_TRUE(outcome.fired);
  EXPECT_EQ(outcome.failedStep, Construct);
  EXPECT_TRUE(outcome.injected);
  EXPECT_TRUE(outcome.untouched);
  EXPECT_EQ(faulty->count(CFaultyFileSystem::Write), 0);
}

TEST_F(WriterFaultsRepresentativeTest, FailedSyncOrMoveLeavesTheArchiveAndRemovesTheCopy) {
  // Sync #1 makes the copy durable in the constructor, sync #2 the finished archive at close.
  for (auto [op, n] : {std::pair{CFaultyFileSystem::Sync, 2}, std::pair{CFaultyFileSystem::Move, 1}}) {
    SCOPED_TRACE(CFaultyFileSystem::opName(op));
    Outcome const outcome = run(op, n, true);
    EXPECT_EQ(outcome.failedStep, WriterClose);
    EXPECT_TRUE(outcome.injected);
    EXPECT_TRUE(outcome.onCopy);
    EXPECT_TRUE(outcome.untouched);
    EXPECT_TRUE(outcome.noCopyLeft);
    EXPECT_EQ(recording->opened().size(), 2u); // the archive and its copy
  }
}

INSTANTIATE_TEST_SUITE_P(
    Ops, WriterFaultsTest,
    ::testing::Combine(::testing::Values(CFaultyFileSystem::Open, CFaultyFileSystem::Read, CFaultyFileSystem::Write,
                                         CFaultyFileSystem::Seek, CFaultyFileSystem::Tell, CFaultyFileSystem::Close,
                                         CFaultyFileSystem::Length, CFaultyFileSystem::Sync, CFaultyFileSystem::Move),
                       ::testing::Values(false, true)),
    [](auto const& info) { return paramName(info.param); });

} // namespace
