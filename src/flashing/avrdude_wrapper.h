#pragma once
// Flashes an Intel-HEX file into an AVR board by running avrdude from the
// resource folder, turns its output into "uploadState" / "uploadProgress"
// notifications (see upload_status.h) and judges the run by the "#" marks of
// its progress bars: a good run draws only full bars of 50 marks, three of them
// (signature read, write, verifying read: 150 marks) or, with avrdude 7, which
// draws no bar for the signature read, a write bar and a verifying bar (100),
// and reports no verification error. One wrapper serves one upload.
//
// The output of a run reaches the log file only when the run failed: it is
// collected in Logger's buffer chunk by chunk, prefixed "Avrdude: ".
//
// Threads: startUpload() and getSignature() block their caller until avrdude
// has exited. readData() and terminated() run on the child process's reader
// and waiter threads, one at a time (ChildProcess serialises its handlers), and
// post from there; observers that touch the window move to the main queue.
#include "flashing/upload_status.h"
#include "platform/child_process.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quendral {

class AvrdudeWrapper {
public:
    // Logs "Avrdude initiated".
    AvrdudeWrapper();
    ~AvrdudeWrapper();
    AvrdudeWrapper(const AvrdudeWrapper&) = delete;
    AvrdudeWrapper& operator=(const AvrdudeWrapper&) = delete;

    // Writes `hexFile` into the board behind `serialPort`, choosing avrdude's
    // arguments by the port's combined USB identifier. True exactly when avrdude
    // ran and exited with status 0; the status text posted at the end follows
    // the counted marks instead, so the two can disagree.
    bool startUpload(const std::string& hexFile, const std::string& serialPort, std::uint32_t idx);

    // Asks avrdude for the chip signature, first as an "arduino" programmer,
    // then as a "wiring" one. The 8-character signature text, or none.
    std::optional<std::string> getDeviceSignature(const std::string& serialPort);
    // Runs avrdude with `arguments` and reads its standard error in blocks of at
    // most 64 bytes until a block names the signature or reports a time-out.
    std::optional<std::string> getSignature(const std::vector<std::string>& arguments);

    // --- the two steps a run's output drives ---
    // One chunk of output from the pipe `handle`. Chunks from a pipe that is not
    // this run's standard output or standard error are ignored.
    void readData(ChildProcess::HandleId handle, std::string_view data);
    // The tool has exited and all its output has been read: log the verdict.
    void terminated();

    // Clears the counters and flags and takes the pipes whose chunks count.
    // Every startUpload() begins with it; tests that replay recorded output call
    // it directly.
    void resetRunState(ChildProcess::HandleId standardOutput, ChildProcess::HandleId standardError);

    [[nodiscard]] std::string hexFile() const;
    void setHexFile(std::string hexFile);

    [[nodiscard]] bool isWriting() const { return _isWriting; }
    [[nodiscard]] bool isReading() const { return _isReading; }
    [[nodiscard]] std::uint64_t countHash() const { return _countHash; }
    [[nodiscard]] std::uint64_t totalHash() const { return _totalHash; }
    [[nodiscard]] bool verificationError() const { return _verificationError; }

    // Where the run's status texts and progress go, besides the notifications.
    void setReportHandlers(upload::Reporter::StateHandler state, upload::Reporter::ProgressHandler progress)
    {
        _reporter.setHandlers(std::move(state), std::move(progress));
    }

private:
    upload::Reporter _reporter{this};
    enum class Bar { Write, Read };
    [[nodiscard]] bool allBarsComplete() const;

    ChildProcess::HandleId _stderr = 0;
    ChildProcess::HandleId _stdout = 0;
    bool _isWriting = false;
    bool _isReading = false;
    std::uint64_t _countHash = 0;
    std::uint64_t _totalHash = 0;
    bool _verificationError = false;
    std::vector<Bar> _bars;    // the bars drawn so far, in order
    std::string _previousTail; // the end of the previous chunk, for phrases split over two

    mutable std::mutex _hexFileMutex;
    std::string _hexFile;

    // Last, so that it goes first: its threads call back into the fields above.
    std::unique_ptr<ChildProcess> avrdude;
};

} // namespace quendral
