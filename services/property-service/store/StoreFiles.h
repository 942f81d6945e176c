// The files around the store: the database itself, its backups (PATH.backup-1, the newer, and PATH.backup-2), and what
// was set aside as damaged (PATH.damaged-TIME, two at most).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace propertyservice {

/// Remembers which file is at a path, so that it is noticed when another one is, or none.
class FileMark {
 public:
    enum class State { inPlace, deleted, replaced };

    explicit FileMark(std::string path);

    /// One system call. As long as nothing else can be told, the file is in its place.
    State state() const;

 private:
    std::string path_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

/// Makes the file (mode 0600) and its folder. Throws UnwritableStore or StoreException.
void createIfMissing(const std::string& path);

/// Looks at the file's header without SQLite, which would already move a log that belongs to a newer version. Throws
/// DamagedStore for what must have been a store of ours, StoreException for one of a newer version or something else.
void checkHeader(const std::string& path);

/// Whether another process has the database open, its header damaged or not. Not while this one has: it would drop its
/// own locks.
bool isInUse(const std::string& path);

/// What is wrong with a store of that format.
std::string newerVersion(int format);

/// The file that a path leads to in the end, there or not: SQLite keeps the log beside it.
std::string followLinks(std::string path);

/// Syncs the folder of the file: a new name is not safe before.
void syncFolder(const std::string& path);

/// Makes an exact, synced copy under another name, at once or not at all. Throws StoreException.
void copyFile(const std::string& from, const std::string& to);

/// The backups that exist, newest first.
std::vector<std::string> backupsOf(const std::string& path);

/// How old the newest backup is, by the machine's clock; negative when that was set back.
std::optional<std::chrono::seconds> ageOfBackup(const std::string& path);

/// An empty file (mode 0600) for the next backup; `keepBackup` then makes it the newest one. Both throw StoreException.
std::string beginBackup(const std::string& path);
void keepBackup(const std::string& path);

/// An empty file (mode 0600) beside the store, for a new one, and the store's folder. `install` then puts it in the
/// store's place at once or not at all, and removes a log that belongs to what was there. Both throw UnwritableStore or
/// StoreException.
std::string beginStore(const std::string& path);
void install(const std::string& fresh, const std::string& path);

/// Renames the store and its log; returns the new name. Older damaged ones are removed. Throws StoreException.
std::string setAside(const std::string& path);

}  // namespace propertyservice
