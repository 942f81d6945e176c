// The files of the store: the database itself, its backups (PATH.backup-1, the newer, and PATH.backup-2), and damaged
// files that were moved aside (PATH.damaged-TIME, at most two).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace propertyservice {

/// Which file is at a path; none if there is none.
using FileId = std::optional<std::pair<dev_t, ino_t>>;

/// One system call. Returns `ifUnknown` if it fails for another reason than a missing file.
FileId idOf(const std::string& path, const FileId& ifUnknown);

/// Creates the file (mode 0600) and its folder if missing. Throws UnwritableStore or StoreException.
void createIfMissing(const std::string& path);

/// Checks the file's header without SQLite, which would already merge the log of a newer version. Throws DamagedStore
/// if the file was a property store, StoreException if a newer version wrote it or it is not a property store.
void checkHeader(const std::string& path);

/// Whether another process has the database open, even with a damaged header. Must not be called while this process has
/// it open, as that would drop this process's locks.
bool isInUse(const std::string& path);

/// The error text about a store of a newer format.
std::string newerVersionError(int format);

/// Resolves links, also to a missing file: SQLite keeps the log beside the target.
std::string resolveLinks(std::string path);

/// Throws UnwritableStore or StoreException.
void syncFile(const std::string& path);

/// Syncs the folder of the file: until then a power cut may lose a new or renamed file.
void syncFolder(const std::string& path);

/// Makes a synced copy, which appears under its name only when complete. Throws StoreException.
void copyFile(const std::string& from, const std::string& to);

/// The backups that exist, newest first.
std::vector<std::string> backupsOf(const std::string& path);

/// Age of the newest backup by the system clock; negative if the clock was set back.
std::optional<std::chrono::seconds> ageOfBackup(const std::string& path);

/// Makes PATH.backup-new, which must be synced, the newest backup. Throws UnwritableStore or StoreException.
void keepBackup(const std::string& path);

/// Renames `fresh`, which must be synced, to the store's path and removes the log of the previous file. Throws
/// UnwritableStore or StoreException.
void install(const std::string& fresh, const std::string& path);

/// Moves the store and its log aside and returns the new name. Removes all but the two newest. Throws StoreException.
std::string moveAside(const std::string& path);

}  // namespace propertyservice
