#include "store/Store.h"

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "debug/Debug.h"
#include "store/StoreFiles.h"

namespace propertyservice {

namespace {

constexpr std::chrono::hours retryBackup{1};
constexpr std::chrono::hours secondBackup{1};  // after the first, which has hardly more than one setting

bool isEmpty(const std::string& path) {
    std::error_code error;
    return std::filesystem::file_size(path, error) == 0 && !error && !std::filesystem::exists(path + "-wal", error);
}

// $TMPDIR (or TMP, TEMP, TEMPDIR), unless it is missing or relative: the working folder says nothing about where files
// may be written.
std::filesystem::path folderOfTemporaryFiles() {
    std::error_code error;
    std::filesystem::path chosen = std::filesystem::temp_directory_path(error);
    return !error && chosen.is_absolute() ? chosen : "/tmp";
}

// A temporary folder, removed by the destructor.
class TemporaryFolder {
 public:
    TemporaryFolder() {
        // The first may be on the same unwritable disk.
        for (const std::filesystem::path& folder : {folderOfTemporaryFiles(), {"/dev/shm"}}) {
            path_ = (folder / "prop-service-XXXXXX").string();
            if (::mkdtemp(path_.data()) != nullptr) return;
        }
        throw StoreException(path_ + ": cannot be created");
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }

 private:
    std::string path_;
};

}  // namespace

Store::Store(const std::string& path, std::chrono::milliseconds backupInterval)
    : path_(resolveLinks(path)), backupInterval_(backupInterval) {
    try {
        open();
    } catch (const UnwritableStore& error) {
        loaded_ = readCopy();
        dbg::Debug::error() << error.what() << "; stored settings can be read but not changed until the disk is "
                            << "writable" << std::endl;
    }
}

Store::~Store() {
    try {
        if (database_) rewriteIfDisplaced();
    } catch (const std::exception& error) {
        dbg::Debug::error() << error.what() << "; the settings in the deleted files are lost" << std::endl;
    }
}

void Store::open() {
    try {
        database_ = std::make_unique<Database>(path_);
        loaded_ = database_->load();
        if (const std::size_t lost = database_->lostCommits(); lost > 0) {
            dbg::Debug::error() << path_ << "-wal: is damaged; the last changes in it are lost: " << lost << std::endl;
        }
    } catch (const DamagedStore& error) {
        database_.reset();
        if (isInUse(path_)) throw StoreException(path_ + ": another process uses it, and it is damaged");
        restore(error.what());
    } catch (...) {
        database_.reset();
        throw;
    }
    scheduleBackup();
}

void Store::restore(const std::string& damage) {
    database_.reset();
    std::error_code unknown;
    if (isEmpty(path_)) {
        dbg::Debug::error() << damage << std::endl;
        std::filesystem::remove(path_, unknown);
    } else if (std::filesystem::exists(path_, unknown)) {  // an earlier attempt may have moved it already
        const std::string aside = moveAside(path_);
        dbg::Debug::error() << damage << "; it is kept as " << aside << std::endl;
    }
    for (const std::string& backup : backupsOf(path_)) {
        try {
            copyFile(backup, path_);
            database_ = std::make_unique<Database>(path_);
            loaded_ = database_->load();
            dbg::Debug::error() << "Restored the settings of the backup " << backup << ": " << loaded_.size()
                                << " stored values" << std::endl;
            return;
        } catch (const DamagedStore& error) {
            dbg::Debug::error() << "The backup " << backup << " is unusable: " << error.what() << std::endl;
            database_.reset();
            std::error_code ignored;
            std::filesystem::remove(backup, ignored);
            std::filesystem::remove(path_, ignored);
            std::filesystem::remove(path_ + "-wal", ignored);
        }
    }
    dbg::Debug::error() << "No usable backup: settings start at their defaults" << std::endl;
    loaded_ = {};
    database_ = std::make_unique<Database>(path_);
}

// Loads a copy of the store in a temporary folder: SQLite would write files beside the original.
StoredValues Store::readCopy() const {
    std::vector<std::string> sources = backupsOf(path_);
    sources.insert(sources.begin(), path_);
    bool isUnreadable = false;
    for (const std::string& source : sources) {
        try {
            const TemporaryFolder folder;
            const std::string copy = folder.path() + "/copy.db";
            std::error_code error;
            if (!std::filesystem::exists(source, error)) continue;
            copyFile(source, copy);
            if (std::filesystem::exists(source + "-wal", error)) copyFile(source + "-wal", copy + "-wal");
            return Database(copy).load();
        } catch (const DamagedStore& error) {
            dbg::Debug::error() << error.what() << std::endl;
        } catch (const StoreException& error) {
            dbg::Debug::error() << error.what() << std::endl;
            isUnreadable = true;
        }
    }
    // Starting with defaults would let new sets mix with settings that may still be good.
    if (isUnreadable) throw StoreException(path_ + ": can be neither read nor written");
    return {};
}

StoredValues Store::load() {
    if (!loaded_.empty() || !database_) return std::exchange(loaded_, {});
    return database_->load();
}

void Store::write(const std::vector<Entry>& entries) {
    if (entries.empty()) return;
    if (!database_) {
        open();
        loaded_ = {};
    } else {
        rewriteIfDisplaced();
    }
    commit(entries);
}

void Store::commit(const std::vector<Entry>& entries) {
    database_->write(entries);
    if (Clock::now() >= nextBackup_) backUp();
}

void Store::rebuild(const std::vector<Entry>& entries) {
    restore(path_ + ": is damaged");
    loaded_ = {};
    scheduleBackup();
    commit(entries);
}

// The open database still has everything, so a copy of it replaces whatever is at the path now. Until that succeeds
// nothing is written: it would go to a deleted file.
void Store::rewriteIfDisplaced() {
    const FileId file = idOf(path_, database_->file());
    const FileId log = idOf(path_ + "-wal", database_->log());
    const bool isFileInPlace = file == database_->file();
    const bool isLogInPlace = log == database_->log();
    if (isFileInPlace && isLogInPlace) return;
    const bool isReplaced = isFileInPlace ? log.has_value() : file.has_value();
    std::string report =
        path_ + (isFileInPlace ? "-wal: was " : ": was ") + (isReplaced ? "replaced" : "deleted") + " while in use";
    const bool isOtherFile = !isFileInPlace && isReplaced;
    if (isOtherFile && isInUse(path_)) throw StoreException(report + "; another process uses the new file");
    const std::string fresh = path_ + ".new";
    const std::size_t count = database_->copyTo(fresh);
    if (isOtherFile) {
        std::error_code ignored;
        // The log does not belong to the other file.
        if (isLogInPlace) std::filesystem::remove(path_ + "-wal", ignored);
        report += "; the other file is kept as " + moveAside(path_);
    }
    install(fresh, path_);
    database_.reset();  // before the new log exists: the old database would use it
    dbg::Debug::error() << report << "; the settings were rewritten: " << count << " stored values" << std::endl;
    loaded_ = {};
    database_ = std::make_unique<Database>(path_);
    scheduleBackup();
}

// The second backup is due early: the first may have only one setting.
std::chrono::milliseconds Store::backupDelay() const {
    return backupsOf(path_).size() < 2 ? std::min<std::chrono::milliseconds>(backupInterval_, secondBackup)
                                       : backupInterval_;
}

void Store::scheduleBackup() {
    const std::optional<std::chrono::seconds> age = ageOfBackup(path_);
    const std::chrono::milliseconds delay = backupDelay();
    const bool due = !age || *age < std::chrono::seconds(0) || *age >= delay;
    if (!due) {
        nextBackup_ = Clock::now() + delay - *age;
    } else if (loaded_.empty()) {
        nextBackup_ = Clock::now();  // with the next write: an empty store needs no backup
    } else {
        backUp();
    }
}

void Store::backUp() {
    nextBackup_ = Clock::now() + backupInterval_;
    try {
        database_->copyTo(path_ + ".backup-new");
        keepBackup(path_);
        nextBackup_ = Clock::now() + backupDelay();
    } catch (const DamagedStore&) {
        throw;
    } catch (const StoreException& error) {
        dbg::Debug::warning() << "No backup of the settings was made: " << error.what() << std::endl;
        nextBackup_ = Clock::now() + std::min<std::chrono::milliseconds>(backupInterval_, retryBackup);
    }
}

}  // namespace propertyservice
