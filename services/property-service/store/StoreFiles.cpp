#include "store/StoreFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <system_error>

#include "common/Descriptor.h"
#include "store/Database.h"

namespace propertyservice {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t maxDamagedFiles = 2;
constexpr int maxLinks = 40;
// A version number further ahead than this counts as damage.
constexpr int maxVersionsAhead = 16;
// Where SQLite locks a database: https://www.sqlite.org/fileformat2.html#the_lock_byte_page
constexpr off_t firstLockByte = 0x40000000;
constexpr off_t lockBytes = 512;

[[noreturn]] void fail(const std::string& path, const std::string& what, int error) {
    const std::string text = path + ": " + what + ": " + common::reasonOf(error);
    if (error == EROFS || error == ENOSPC || error == EDQUOT || error == EIO) throw UnwritableStore(text);
    throw StoreException(text);
}

std::string folderOf(const std::string& path) {
    const std::string folder = fs::path(path).parent_path().string();
    return folder.empty() ? "." : folder;
}

void rename(const std::string& from, const std::string& to) {
    if (::rename(from.c_str(), to.c_str()) != 0) fail(from, "cannot be renamed", errno);
}

std::string timeStamp() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    ::gmtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
    return text;
}

}  // namespace

FileId idOf(const std::string& path, const FileId& ifUnknown) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) return std::pair(status.st_dev, status.st_ino);
    return errno == ENOENT || errno == ENOTDIR ? std::nullopt : ifUnknown;
}

void createIfMissing(const std::string& path) {
    std::error_code error;
    const fs::path folder = fs::path(path).parent_path();
    if (!folder.empty() && !fs::exists(folder, error)) {
        fs::create_directories(folder, error);
        if (error) fail(path, "its folder cannot be created", error.value());
    }
    // Only the owner may read it: settings include credentials. SQLite gives the log the same mode.
    const common::Descriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (file.get() < 0) fail(path, "cannot be opened for writing", errno);
    struct stat status {};
    const bool regular = ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
    if (!regular) throw StoreException(path + ": is not a regular file");
}

void checkHeader(const std::string& path) {
    std::array<unsigned char, 100> header{};
    common::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) fail(path, "cannot be read", errno);
    const ssize_t length = ::pread(file.get(), header.data(), header.size(), 0);
    if (length < 0) fail(path, "cannot be read", errno);
    file.close();  // before SQLite opens the file: a later close would drop SQLite's locks
    // Only a property store has backups.
    const bool hasBackups = !backupsOf(path).empty();
    if (length == 0) {
        if (hasBackups) throw DamagedStore(path + ": is empty, but there are backups of it");
        return;
    }
    const std::string magic(reinterpret_cast<const char*>(header.data()), 15);
    if (length < static_cast<ssize_t>(header.size()) || magic != "SQLite format 3") {
        if (hasBackups) throw DamagedStore(path + ": its header was overwritten");
        throw StoreException(path + ": is not a property store; name another file with --store");
    }
    const auto number = [&header](std::size_t at) {
        return static_cast<std::int32_t>(std::uint32_t{header[at]} << 24 | std::uint32_t{header[at + 1]} << 16 |
                                         std::uint32_t{header[at + 2]} << 8 | std::uint32_t{header[at + 3]});
    };
    const bool isOurs = number(68) == Database::applicationId;
    const std::int32_t found = number(60);
    if (isOurs && found > Database::version && found <= Database::version + maxVersionsAhead) {
        throw StoreException(path + ": " + newerVersionError(found));
    }
    // SQLite refuses to open a file with other format numbers, or to write to it.
    const bool isKnownFormat = (header[18] == 1 || header[18] == 2) && (header[19] == 1 || header[19] == 2) &&
                               number(44) >= 1 && number(44) <= 4;
    // Both numbers are written in one transaction, so other values are damage.
    const bool isDamaged = isOurs ? found < 1 || found > Database::version || !isKnownFormat : hasBackups;
    if (isDamaged) throw DamagedStore(path + ": its header is damaged");
    const bool empty = number(68) == 0 && found == 0 && number(40) == 0;  // 40: schema cookie
    if (!isOurs && !empty) {
        throw StoreException(path + ": is a database of another program; name another file with --store");
    }
}

bool isInUse(const std::string& path) {
    const common::Descriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = firstLockByte;
    lock.l_len = lockBytes;
    return ::fcntl(file.get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

std::string newerVersionError(int format) {
    return "was written by a newer version (store format " + std::to_string(format) + ", this version supports " +
           std::to_string(Database::version) + "); it is left unchanged";
}

std::string resolveLinks(std::string path) {
    std::error_code error;
    for (int count = 0; count < maxLinks && fs::is_symlink(path, error); ++count) {
        path = (fs::path(path).parent_path() / fs::read_symlink(path, error)).string();
    }
    return path;
}

void syncFile(const std::string& path) {
    const common::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0 || ::fsync(file.get()) != 0) fail(path, "cannot be synced", errno);
}

void syncFolder(const std::string& path) {
    const common::Descriptor folder(::open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() >= 0) ::fsync(folder.get());
}

void copyFile(const std::string& from, const std::string& to) {
    const std::string fresh = to + ".new";
    std::error_code error;
    fs::copy_file(from, fresh, fs::copy_options::overwrite_existing, error);
    if (error) fail(from, "cannot be copied", error.value());
    syncFile(fresh);
    rename(fresh, to);
    syncFolder(to);
}

std::vector<std::string> backupsOf(const std::string& path) {
    std::vector<std::string> backups;
    for (const char* name : {".backup-1", ".backup-2"}) {
        std::error_code error;
        if (fs::exists(path + name, error)) backups.push_back(path + name);
    }
    return backups;
}

std::optional<std::chrono::seconds> ageOfBackup(const std::string& path) {
    const std::vector<std::string> backups = backupsOf(path);
    struct stat status {};
    if (backups.empty() || ::stat(backups.front().c_str(), &status) != 0) return std::nullopt;
    return std::chrono::seconds(std::time(nullptr) - status.st_mtime);
}

void keepBackup(const std::string& path) {
    std::error_code error;
    if (fs::exists(path + ".backup-1", error)) rename(path + ".backup-1", path + ".backup-2");
    rename(path + ".backup-new", path + ".backup-1");
    syncFolder(path);
}

void install(const std::string& fresh, const std::string& path) {
    std::error_code ignored;
    fs::remove(path + "-wal", ignored);
    rename(fresh, path);
    syncFolder(path);
}

std::string moveAside(const std::string& path) {
    const std::string prefix = path + ".damaged-";
    std::error_code error;
    const std::string stamp = prefix + timeStamp();
    std::string aside = stamp;
    for (int count = 2; fs::exists(aside, error); ++count) aside = stamp + "-" + std::to_string(count);
    if (fs::exists(path + "-wal", error)) rename(path + "-wal", aside + "-wal");
    rename(path, aside);
    std::vector<std::string> older;
    for (const fs::directory_entry& entry : fs::directory_iterator(folderOf(path), error)) {
        const std::string name = (fs::path(path).parent_path() / entry.path().filename()).string();
        const bool isLog = name.size() > 4 && name.compare(name.size() - 4, 4, "-wal") == 0;
        if (name.compare(0, prefix.size(), prefix) == 0 && !isLog) older.push_back(name);
    }
    std::sort(older.rbegin(), older.rend());
    for (std::size_t index = maxDamagedFiles; index < older.size(); ++index) {
        fs::remove(older[index], error);
        fs::remove(older[index] + "-wal", error);
    }
    syncFolder(path);
    return aside;
}

}  // namespace propertyservice
