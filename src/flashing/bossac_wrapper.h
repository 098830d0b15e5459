#pragma once
// Flashes a firmware file into the SAM-based board by running bossac from the
// resource folder on the port where the board's boot loader has appeared,
// turns bossac's output into "uploadState" / "uploadProgress" notifications
// (see upload_status.h) and reports whether bossac succeeded. One wrapper
// serves one upload.
//
// The output of a run reaches the log file only when bossac failed: it is
// collected in Logger's buffer chunk by chunk, prefixed "Bossac: ".
//
// Threads: startUpload() blocks its caller until bossac has exited. readData()
// and terminated() run on the child process's reader and waiter threads, one
// at a time, and post from there.
#include "flashing/upload_status.h"
#include "platform/child_process.h"
#include "serial/serial_port.h"
#include "serial/serial_port_delegate.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quendral {

class BossacWrapper : public SerialPortDelegate {
public:
    // `port` is the boot loader's device path. Logs "Bossac initiated".
    explicit BossacWrapper(std::string port);
    ~BossacWrapper() override;
    BossacWrapper(const BossacWrapper&) = delete;
    BossacWrapper& operator=(const BossacWrapper&) = delete;

    // Erases, writes and verifies `hexFile`, sets boot-from-flash and resets the
    // board. True exactly when bossac ran and exited with status 0.
    bool startUpload(const std::string& hexFile);

    // Ends the run's bossac if it still runs (from any thread while startUpload
    // waits): for a tool whose board has gone and that does not notice.
    void terminateRun();

    // --- the two steps a run's output drives ---
    // One chunk of output from the pipe `handle`; chunks from a pipe that is not
    // this run's standard output or standard error are ignored.
    void readData(ChildProcess::HandleId handle, std::string_view data);
    // bossac has exited and all its output has been read.
    void terminated(const ChildProcess::Termination& termination);

    // Takes the pipes whose chunks count. startUpload() does this for every run;
    // tests that replay recorded output call it directly.
    void resetRunState(ChildProcess::HandleId standardOutput, ChildProcess::HandleId standardError);

    // bossac's arguments for a port name and a firmware file.
    static std::vector<std::string> uploadArguments(const std::string& portName, const std::string& hexFile);

    // Never reached in practice: the wrapper opens no port and is nobody's
    // delegate. Logs "Bossac: Serialportdata: <hex bytes>".
    void serialPortDidReceiveData(const std::shared_ptr<SerialPort>& port, const SerialData& data) override;

    [[nodiscard]] const std::string& port() const { return _port; }
    // The name bossac knows the port by: the serial port's name ("ttyACM0";
    // bossac looks names up below /dev/). A path the serial layer does not know
    // (a pseudo-terminal) is named below /dev/ ("pts/3"), or whole when outside.
    [[nodiscard]] std::string portName() const;
    [[nodiscard]] const std::string& hexFile() const { return _hexFile; }

    // Where the run's status texts and progress go, besides the notifications.
    void setReportHandlers(upload::Reporter::StateHandler state, upload::Reporter::ProgressHandler progress)
    {
        _reporter.setHandlers(std::move(state), std::move(progress));
    }

private:
    upload::Reporter _reporter{this};
    std::string _port;
    SerialPort::Ptr _portObj; // only for its name; never opened
    std::string _hexFile;
    ChildProcess::HandleId _stdout = 0;
    ChildProcess::HandleId _stderr = 0;
    bool _hasUploaded = false;
    bool _appeared = false;
    bool _disappeared = false;

    // Last, so that it goes first: its threads call back into the fields above.
    std::unique_ptr<ChildProcess> bossac;
};

} // namespace quendral
