#include "several_controllers.h"

#include "cli_session.h"
#include "controller/bootloader_touch.h"
#include "controller/controller_link.h"
#include "controller/firmware_uploader.h"
#include "controller/port_list.h"
#include "controller/update_job.h"
#include "controller_update.h"
#include "flashing/board_table.h"
#include "json_output.h"
#include "log/logger.h"
#include "log/visible_text.h"
#include "platform/dispatch.h"
#include "serial/serial_port_manager.h"

#include <algorithm>
#include <atomic>
#include <iostream>
#include <mutex>
#include <optional>

namespace quendral::cli {

struct SeveralControllers::Board {
    std::string name; // the port's name when the run began
    std::unique_ptr<TerminalFeedback> feedback;
    std::shared_ptr<ControllerLink> link;
    std::unique_ptr<FirmwareUploader> uploader;
    std::optional<PortPath> port;
    const BoardIdentification* kind = nullptr; // update: the board table's row, when its type has an update check

    // What came of it.
    std::string outcome;
    std::optional<std::string> error;
    std::optional<std::string> previousVersion;
    std::optional<std::string> version;
    int exitCode = kFailure;
    bool counts = true; // false: left alone, its type has no update check
    std::optional<UpdateReport> report;
};

SeveralControllers::SeveralControllers(const Invocation& invocation, const TerminalFeedback::Options& feedback)
    : _invocation(invocation)
{
    auto streamLock = std::make_shared<std::mutex>();
    auto questionLock = std::make_shared<std::mutex>();
    auto& manager = SerialPortManager::sharedSerialPortManager();
    const SerialPortList listed = listedControllerPorts(manager);
    for (const SerialPort::Ptr& port : listed) {
        if (BoardTable::find(usbIdentifierOf(listed, port->path())) == nullptr) {
            continue;
        }
        auto board = std::make_unique<Board>();
        board->name = port->name();
        TerminalFeedback::Options options = feedback;
        options.prefix = port->name() + ": ";
        options.progressBar = false; // several bars cannot share one line
        options.streamLock = streamLock;
        options.questionLock = questionLock;
        board->feedback = std::make_unique<TerminalFeedback>(std::move(options));
        board->link = ControllerLink::create(*board->feedback);
        board->uploader = std::make_unique<FirmwareUploader>(*board->link, *board->feedback);
        board->port = followBoard(port->path(), manager);
        _boards.push_back(std::move(board));
    }
}

SeveralControllers::~SeveralControllers() = default;

void SeveralControllers::runForEach(const std::vector<Board*>& boards, const std::function<void(Board&)>& work)
{
    auto remaining = std::make_shared<std::atomic<std::size_t>>(boards.size());
    for (Board* board : boards) {
        dispatch::globalQueue()->async([board, &work, remaining] {
            work(*board);
            --*remaining;
        });
    }
    serveMainQueueUntil([&] { return remaining->load() == 0; });
    dispatch::RunLoop::main().drain();
}

int SeveralControllers::identifyAll()
{
    if (_boards.empty()) {
        std::cerr << "quendral-cli: no Controller is connected\n";
        return kFailure;
    }
    std::vector<Board*> all;
    for (const auto& board : _boards) {
        all.push_back(board.get());
    }
    runForEach(all, [](Board& board) {
        const auto cid = board.link->getCID(*board.port);
        const auto message = board.link->deviceMessage();
        board.outcome = cid                              ? "identified"
                        : board.link->portAccessDenied() ? "port-access-denied"
                        : message                        ? "controller-message"
                                                         : "not-identified";
        if (!cid) {
            board.error = message.value_or("The Controller did not identify itself.");
        }
        board.version = board.link->currentVersion();
        board.exitCode = cid ? kSuccess : kFailure;
    });
    if (_invocation.json) {
        for (const auto& board : _boards) {
            printJson(resultObject(*board->port, *board->link, board->outcome, board->error));
        }
    }
    return finish(false);
}

int SeveralControllers::updateAll(const UpdateServerConfig& server)
{
    std::vector<Board*> updatable;
    for (const auto& board : _boards) {
        board->feedback->uploadBegins();
        board->kind =
            UpdateJob(*board->link, *board->uploader, *board->feedback).boardToUpdate(board->port->currentOrEmpty());
        if (board->kind == nullptr) {
            board->outcome = outcomeKey(UpdateOutcome::UnsupportedDevice);
            board->error = "Check for updates is not supported for this device type.";
            board->counts = false;
            continue;
        }
        updatable.push_back(board.get());
    }
    if (updatable.empty()) {
        std::cerr << "quendral-cli: no Controller that can be updated is connected\n";
        return kFailure;
    }
    runForEach(updatable, [&](Board& board) {
        // A client of its own: one board's connection never carries another's requests.
        const UpdateServerClient client(server);
        const UpdateReport& report = board.report.emplace(updateController(
            *board.link, *board.uploader, *board.feedback, *board.port, *board.kind, _invocation.build, client));
        board.outcome = outcomeKey(report.outcome);
        board.error = updateErrorText(report);
        if (board.error) {
            board.feedback->failure(*board.error);
        }
        board.previousVersion = report.previousVersion;
        if (report.reidentified) {
            board.version = board.link->currentVersion();
        }
        board.exitCode = exitCodeFor(report.outcome, report.problem);
    });
    if (_invocation.json) {
        for (const auto& board : _boards) {
            printJson(board->report ? updateResultObject(*board->port, *board->link, *board->report)
                                    : resultObject(*board->port, *board->link, board->outcome, board->error));
        }
    }
    return finish(true);
}

int SeveralControllers::finish(bool update)
{
    std::vector<int> codes;
    std::vector<std::vector<std::string>> rows{{"PORT", "CID", "VERSION", "OUTCOME"}};
    for (const auto& board : _boards) {
        if (auto port = board->link->serial(); port && port->isOpen()) {
            port->close();
            serveMainQueueUntil([&] { return !port->isOpen(); });
        }
        if (board->counts) {
            codes.push_back(board->exitCode);
        }
        std::string version = board->version.value_or("-");
        if (update) {
            version = board->previousVersion.value_or("-") + (board->version ? " -> " + *board->version : "");
        }
        rows.push_back({board->name, board->link->deviceCID().value_or("-"), version,
                        board->outcome + (board->error ? ": " + *board->error : "")});
    }
    if (!_invocation.json) {
        std::cout << visibleText(columns(rows)) << std::flush;
    }
    return worstExitCode(codes);
}

int worstExitCode(const std::vector<int>& codes)
{
    // From the least to the most serious.
    static const std::vector<int> order{kSuccess, kNoUpdateNeeded, kDeclined, kRefused, kNoConnection, kFailure};
    const auto rank = [](int code) {
        const auto found = std::find(order.begin(), order.end(), code);
        return found == order.end() ? order.size() : static_cast<std::size_t>(found - order.begin());
    };
    int worst = kSuccess;
    for (const int code : codes) {
        if (rank(code) > rank(worst)) {
            worst = code;
        }
    }
    return worst;
}

std::string columns(const std::vector<std::vector<std::string>>& rows)
{
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string text;
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            text += row[i];
            if (i + 1 < row.size()) {
                text += std::string(widths[i] - row[i].size() + 2, ' ');
            }
        }
        text += '\n';
    }
    return text;
}

} // namespace quendral::cli
