#include "DaemonLog.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>

#include "common/Execute.h"
#include "common/Quote.h"
#include "propertyprotocol/Json.h"

namespace zavctl {

namespace {

constexpr std::size_t maximumLine = 64UL * 1024;
constexpr std::chrono::seconds endTime{5};
constexpr std::chrono::seconds journalTime{60};
constexpr char journal[] = "journalctl -q -a --no-pager -u zavd.service -o json --output-fields=MESSAGE";
constexpr char noJournal[] =
    "the journal has no line of this pass for this user: run zavctl as root or in the group systemd-journal, or name "
    "the "
    "daemon's log with --log FILE";

int openFile(const std::string& path) { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); }

bool isRegular(int file, struct stat& status) { return ::fstat(file, &status) == 0 && S_ISREG(status.st_mode); }

// Reads from `offset` to the end. The last line may lack its line break.
void readLines(int file, off_t offset, const DaemonLog::Line& line) {
    std::array<char, 65536> chunk{};
    std::string pending;
    while (true) {
        const ssize_t count = ::pread(file, chunk.data(), chunk.size(), offset);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        offset += count;
        std::string_view rest(chunk.data(), static_cast<std::size_t>(count));
        while (!rest.empty()) {
            const std::size_t end = rest.find('\n');
            const std::string_view part = rest.substr(0, end);
            pending.append(part.substr(0, maximumLine - pending.size()));
            if (end == std::string_view::npos) break;
            line(pending);
            pending.clear();
            rest.remove_prefix(end + 1);
        }
    }
    if (!pending.empty()) line(pending);
}

// The lines that a command prints. They are kept in memory until it ends.
void readOutput(const std::string& command, std::chrono::milliseconds timeout, const DaemonLog::Line& line) {
    const common::Descriptor output(::memfd_create("zavctl-journal", MFD_CLOEXEC));
    if (output.get() < 0) throw std::runtime_error("no memory for the output of journalctl");
    os::execute(command + " >/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(output.get()), timeout);
    readLines(output.get(), 0, line);
}

// The text of an entry; bytes that are not UTF-8 come as numbers.
std::string messageOf(const Json::Value& entry) {
    const Json::Value& message = entry["MESSAGE"];
    if (message.isString()) return message.asString();
    std::string text;
    if (!message.isArray()) return text;
    for (const Json::Value& byte : message) {
        if (byte.isInt()) text += static_cast<char>(byte.asInt());
    }
    return text;
}

std::string lastCursor() {
    std::string cursor;
    try {
        readOutput(std::string(journal) + " -n 1", endTime, [&cursor](std::string_view line) {
            Json::Value entry;
            if (!propertyprotocol::parseJson(std::string(line), entry) && entry.isObject()) {
                cursor = propertyprotocol::textMember(entry, "__CURSOR");
            }
        });
    } catch (const std::runtime_error&) {  // the reading says it
    }
    return cursor;
}

}  // namespace

DaemonLog::DaemonLog(std::string path) : path_(std::move(path)) {
    if (path_.empty()) {
        cursor_ = lastCursor();
        return;
    }
    file_.reset(openFile(path_));
    struct stat status {};
    if (isRegular(file_.get(), status)) end_ = status.st_size;
}

void DaemonLog::read(const Line& line) const {
    if (path_.empty()) {
        readJournal(line);
    } else {
        readFile(line);
    }
}

void DaemonLog::readFile(const Line& line) const {
    const common::Descriptor now(openFile(path_));
    const std::string reason = now.get() < 0 ? common::reasonOf(errno) : "not a regular file";
    struct stat present {};
    if (!isRegular(now.get(), present)) {
        throw std::runtime_error("the log " + path_ + " cannot be read: " + reason);
    }
    struct stat before {};
    const bool known = isRegular(file_.get(), before);
    const bool rotated = known && (before.st_dev != present.st_dev || before.st_ino != present.st_ino);
    if (known) readLines(file_.get(), before.st_size < end_ ? 0 : end_, line);
    if (!known || rotated) readLines(now.get(), 0, line);
}

void DaemonLog::readJournal(const Line& line) const {
    std::size_t entries = 0;
    const std::string after = cursor_.empty() ? " -b" : " --after-cursor=" + ::quote(cursor_);
    try {
        readOutput(journal + after, journalTime, [&](std::string_view text) {
            Json::Value entry;
            if (propertyprotocol::parseJson(std::string(text), entry) || !entry.isObject()) return;
            ++entries;
            line(messageOf(entry));
        });
    } catch (const os::ExecuteException&) {
        throw std::runtime_error(noJournal);
    }
    if (entries == 0) throw std::runtime_error(noJournal);
}

}  // namespace zavctl
