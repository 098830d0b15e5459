#include "../support/temp_dir.h"
#include "platform/child_process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#ifndef QUENDRAL_CHILD_HELPER
#error "QUENDRAL_CHILD_HELPER must name the helper program"
#endif

using quendral::ChildProcess;
using Stream = ChildProcess::Stream;
using Reason = ChildProcess::TerminationReason;

namespace {

// Everything a process hands to its handlers, guarded for the test thread.
struct Recorder {
    std::mutex mutex;
    std::condition_variable changed;
    std::string out;
    std::string err;
    std::vector<ChildProcess::HandleId> outHandles;
    std::vector<ChildProcess::HandleId> errHandles;
    int terminations = 0;
    ChildProcess::Termination termination;
    std::string outAtTermination;
    std::string errAtTermination;

    void attach(ChildProcess& process)
    {
        process.setDataHandler([this](ChildProcess::HandleId handle, Stream stream, std::string_view bytes) {
            std::lock_guard lock(mutex);
            if (stream == Stream::StandardOutput) {
                out.append(bytes);
                outHandles.push_back(handle);
            } else {
                err.append(bytes);
                errHandles.push_back(handle);
            }
            changed.notify_all();
        });
        process.setTerminationHandler([this](const ChildProcess::Termination& t) {
            std::lock_guard lock(mutex);
            ++terminations;
            termination = t;
            outAtTermination = out;
            errAtTermination = err;
            changed.notify_all();
        });
    }

    bool waitForOut(const std::string& text)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(20), [&] { return out.find(text) != std::string::npos; });
    }
};

// Launches the helper with `arguments` and waits until it has said `ready`.
::testing::AssertionResult launchUntil(ChildProcess& process, Recorder& recorder, std::vector<std::string> arguments,
                                       const std::string& ready)
{
    recorder.attach(process);
    process.setExecutablePath(QUENDRAL_CHILD_HELPER);
    process.setArguments(std::move(arguments));
    if (!process.launch()) {
        return ::testing::AssertionFailure() << "the helper did not launch";
    }
    if (!recorder.waitForOut(ready)) {
        return ::testing::AssertionFailure() << "the helper never said \"" << ready << "\"";
    }
    return ::testing::AssertionSuccess();
}

ChildProcess::Termination run(ChildProcess& process, Recorder& recorder, std::vector<std::string> arguments)
{
    recorder.attach(process);
    process.setExecutablePath(QUENDRAL_CHILD_HELPER);
    process.setArguments(std::move(arguments));
    std::string error;
    EXPECT_TRUE(process.launch(&error)) << error;
    return process.waitUntilExit();
}

std::size_t threadCount()
{
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        ++count;
    }
    return count;
}

bool processGone(pid_t pid)
{
    // Reaped: the pid is no child of ours any more (a zombie would still be one).
    return ::waitpid(pid, nullptr, WNOHANG) < 0 && errno == ECHILD;
}

} // namespace

TEST(ChildProcess, OnlyTheThreeStandardDescriptorsReachTheChild)
{
    // Descriptors that were opened without close-on-exec, as a library might.
    const int stray = ::open("/dev/null", O_RDONLY);
    int strayPipe[2];
    ASSERT_EQ(::pipe(strayPipe), 0);
    ASSERT_GE(stray, 3);

    ChildProcess process;
    Recorder recorder;
    const auto termination = run(process, recorder, {"fds"});
    ::close(stray);
    ::close(strayPipe[0]);
    ::close(strayPipe[1]);

    EXPECT_TRUE(termination.succeeded());
    EXPECT_EQ(recorder.out, "0 1 2\n");
}

TEST(ChildProcess, ArgumentsReachTheProgramVerbatimWithoutAShell)
{
    ChildProcess process;
    Recorder recorder;
    run(process, recorder, {"args", "a b", "$(echo hi)", "*", "", "; ls", "'q'"});
    EXPECT_EQ(recorder.out, "[a b]\n[$(echo hi)]\n[*]\n[]\n[; ls]\n['q']\n");
}

TEST(ChildProcess, EachStreamArrivesWithItsOwnHandleAndTheExitCodeIsReported)
{
    ChildProcess process;
    Recorder recorder;
    const auto outHandle = process.handle(Stream::StandardOutput);
    const auto errHandle = process.handle(Stream::StandardError);
    EXPECT_NE(outHandle, 0U);
    EXPECT_NE(errHandle, 0U);
    EXPECT_NE(outHandle, errHandle);

    const auto termination = run(process, recorder, {"echo", "to stdout", "to stderr", "5"});
    EXPECT_EQ(termination.reason, Reason::Exit);
    EXPECT_EQ(termination.status, 5);
    EXPECT_FALSE(termination.succeeded());
    EXPECT_EQ(recorder.out, "to stdout");
    EXPECT_EQ(recorder.err, "to stderr");
    ASSERT_FALSE(recorder.outHandles.empty());
    ASSERT_FALSE(recorder.errHandles.empty());
    for (auto h : recorder.outHandles) {
        EXPECT_EQ(h, outHandle);
    }
    for (auto h : recorder.errHandles) {
        EXPECT_EQ(h, errHandle);
    }
    EXPECT_EQ(recorder.terminations, 1);
    EXPECT_EQ(recorder.termination.status, 5);
    EXPECT_FALSE(process.isRunning());

    ChildProcess other;
    EXPECT_NE(other.handle(Stream::StandardOutput), outHandle);
    EXPECT_NE(other.handle(Stream::StandardError), errHandle);
}

TEST(ChildProcess, TheTerminationHandlerRunsAfterAllOutputWasDelivered)
{
    ChildProcess process;
    Recorder recorder;
    const auto termination = run(process, recorder, {"flood", "3000"});
    EXPECT_TRUE(termination.succeeded());
    EXPECT_EQ(recorder.terminations, 1);
    EXPECT_NE(recorder.outAtTermination.find("out 2999\nEND-OUT\n"), std::string::npos);
    EXPECT_NE(recorder.errAtTermination.find("err 2999\nEND-ERR\n"), std::string::npos);
}

TEST(ChildProcess, HandlersOfOneProcessNeverRunAtTheSameTime)
{
    ChildProcess process;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::atomic<int> calls{0};
    auto enter = [&] {
        if (inside.fetch_add(1) != 0) {
            overlapped = true;
        }
        ++calls;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        inside.fetch_sub(1);
    };
    process.setDataHandler([&](ChildProcess::HandleId, Stream, std::string_view) { enter(); });
    process.setTerminationHandler([&](const ChildProcess::Termination&) { enter(); });
    process.setExecutablePath(QUENDRAL_CHILD_HELPER);
    process.setArguments({"flood", "2000"});
    ASSERT_TRUE(process.launch());
    process.waitUntilExit();
    EXPECT_GT(calls.load(), 2);
    EXPECT_FALSE(overlapped.load());
}

TEST(ChildProcess, InterruptEndsTheProcessWithSigint)
{
    ChildProcess process;
    Recorder recorder;
    ASSERT_TRUE(launchUntil(process, recorder, {"sleep"}, "sleeping"));
    EXPECT_TRUE(process.isRunning());
    process.interrupt();
    const auto termination = process.waitUntilExit();
    EXPECT_EQ(termination.reason, Reason::UncaughtSignal);
    EXPECT_EQ(termination.status, SIGINT);
    EXPECT_FALSE(process.isRunning());
    process.interrupt(); // reaped: must not signal whatever now has that pid
}

TEST(ChildProcess, TerminateEndsTheProcessWithSigterm)
{
    ChildProcess process;
    Recorder recorder;
    ASSERT_TRUE(launchUntil(process, recorder, {"sleep"}, "sleeping"));
    process.terminate();
    const auto termination = process.waitUntilExit();
    EXPECT_EQ(termination.reason, Reason::UncaughtSignal);
    EXPECT_EQ(termination.status, SIGTERM);
}

TEST(ChildProcess, AMissingProgramFailsToLaunch)
{
    quendral::test::TempDir dir;
    ChildProcess process;
    Recorder recorder;
    recorder.attach(process);
    process.setExecutablePath(dir.path() / "no-such-tool");
    std::string error;
    EXPECT_FALSE(process.launch(&error));
    EXPECT_NE(error.find("No such file"), std::string::npos) << error;
    EXPECT_EQ(process.waitUntilExit().reason, Reason::NotRun);
    EXPECT_FALSE(process.isRunning());
    EXPECT_EQ(recorder.terminations, 0);
}

TEST(ChildProcess, AProcessLaunchesOnlyOnce)
{
    ChildProcess process;
    Recorder recorder;
    run(process, recorder, {"echo", "x", "y"});
    std::string error;
    EXPECT_FALSE(process.launch(&error));
    EXPECT_FALSE(error.empty());
}

TEST(ChildProcess, ExecutableCheck)
{
    quendral::test::TempDir dir;
    const auto plain = dir.path() / "plain";
    std::ofstream(plain) << "#!/bin/sh\n";
    std::filesystem::permissions(plain, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    const auto runnable = dir.path() / "runnable";
    std::ofstream(runnable) << "#!/bin/sh\n";
    std::filesystem::permissions(runnable, std::filesystem::perms::owner_all);
    const auto link = dir.path() / "link";
    std::filesystem::create_symlink(runnable, link);

    EXPECT_TRUE(ChildProcess::isExecutableFile(QUENDRAL_CHILD_HELPER));
    EXPECT_TRUE(ChildProcess::isExecutableFile(runnable));
    EXPECT_TRUE(ChildProcess::isExecutableFile(link));
    EXPECT_FALSE(ChildProcess::isExecutableFile(plain));
    EXPECT_FALSE(ChildProcess::isExecutableFile(dir.path()));
    EXPECT_FALSE(ChildProcess::isExecutableFile(dir.path() / "missing"));
    EXPECT_FALSE(ChildProcess::isExecutableFile(""));
}

TEST(ChildProcess, StandardInputIsEmpty)
{
    ChildProcess process;
    Recorder recorder;
    run(process, recorder, {"stdin"});
    EXPECT_EQ(recorder.out, "stdin read 0\n");
}

TEST(ChildProcess, TheChildStartsWithDefaultSignalHandling)
{
    // This program ignores SIGPIPE and blocks SIGINT on this thread; the tool must not inherit either.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction previous {};
    ::sigaction(SIGPIPE, &ignore, &previous);
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    sigset_t previousMask;
    ::pthread_sigmask(SIG_BLOCK, &block, &previousMask);

    ChildProcess process;
    Recorder recorder;
    run(process, recorder, {"signals"});

    ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    ::sigaction(SIGPIPE, &previous, nullptr);
    EXPECT_EQ(recorder.out, "SIGPIPE default, SIGINT unblocked\n");
}

TEST(ChildProcess, AGrandchildHoldingThePipesDoesNotHoldUpTheTermination)
{
    ChildProcess process;
    Recorder recorder;
    const auto started = std::chrono::steady_clock::now();
    const auto termination = run(process, recorder, {"orphan", "8"});
    const auto took = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(termination.status, 3);
    EXPECT_EQ(recorder.outAtTermination, "parent done\n");
    EXPECT_LT(took, std::chrono::seconds(7));
}

TEST(ChildProcess, AManualStreamIsReadByTheCaller)
{
    ChildProcess process;
    Recorder recorder;
    recorder.attach(process);
    process.setReadsManually(Stream::StandardError);
    process.setExecutablePath(QUENDRAL_CHILD_HELPER);
    process.setArguments({"echo", "handled", "read by hand"});
    ASSERT_TRUE(process.launch());
    std::string text;
    for (std::string block; !(block = process.readAvailable(Stream::StandardError, 4)).empty();) {
        EXPECT_LE(block.size(), 4U);
        text += block;
    }
    EXPECT_EQ(text, "read by hand");
    EXPECT_TRUE(process.waitUntilExit().succeeded());
    EXPECT_EQ(recorder.out, "handled");
    EXPECT_EQ(recorder.err, "");
    EXPECT_EQ(process.readAvailable(Stream::StandardOutput, 4), ""); // not a manual stream
}

TEST(ChildProcess, DestroyingARunningProcessReapsItAndStopsItsThreads)
{
    // ThreadSanitizer starts a thread of its own with the process's first
    // thread: let that happen before the baseline is taken.
    std::thread([] {}).join();
    const std::size_t threadsBefore = threadCount();
    pid_t pid = -1;
    {
        ChildProcess process;
        Recorder recorder;
        ASSERT_TRUE(launchUntil(process, recorder, {"sleep"}, "sleeping"));
        pid = process.processIdentifier();
        EXPECT_GT(threadCount(), threadsBefore);
    }
    EXPECT_TRUE(processGone(pid));
    EXPECT_EQ(threadCount(), threadsBefore);
}

TEST(ChildProcess, AProcessIgnoringSigtermIsKilledOnDestruction)
{
    pid_t pid = -1;
    {
        ChildProcess process;
        Recorder recorder;
        ASSERT_TRUE(launchUntil(process, recorder, {"ignore-term"}, "ignoring"));
        pid = process.processIdentifier();
    }
    EXPECT_TRUE(processGone(pid));
}

TEST(ChildProcess, AProcessMayBeDestroyedFromItsOwnTerminationHandler)
{
    auto process = std::make_unique<ChildProcess>();
    std::promise<int> done;
    std::promise<void> pidTaken;
    process->setExecutablePath(QUENDRAL_CHILD_HELPER);
    process->setArguments({"echo", "a", "b", "7"});
    process->setTerminationHandler([&, taken = pidTaken.get_future().share()](const ChildProcess::Termination& t) {
        taken.wait();
        process.reset();
        done.set_value(t.status);
    });
    ASSERT_TRUE(process->launch());
    const pid_t pid = process->processIdentifier();
    pidTaken.set_value();
    auto result = done.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(result.get(), 7);
    EXPECT_TRUE(processGone(pid));
}
