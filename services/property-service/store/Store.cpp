#include "store/Store.h"

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "debug/Debug.h"
#include "store/LogCheck.h"
#include "store/StoreFiles.h"

namespace propertyservice {

namespace {

constexpr std::chrono::hours retryBackup{1};
constexpr std::chrono::hours secondBackup{1};  // behind the first, which has little more than one setting

bool isEmpty(const std::string& path) {
    std::error_code error;
    return std::filesystem::file_size(path, error) == 0 && !error && !std::filesystem::exists(path + "-wal", error);
}

// A folder in memory or wherever temporary files are, for as long as the object lives.
class TemporaryFolder {
 public:
    TemporaryFolder() {
        std::error_code error;
        // The first may be on the disk that takes nothing.
        for (const std::filesystem::path& folder : {std::filesystem::temp_directory_path(error), {"/dev/shm"}}) {
            path_ = (folder / "prop-service-XXXXXX").string();
            if (::mkdtemp(path_.data()) != nullptr) return;
        }
        throw StoreException(path_ + ": cannot be made");
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
    : path_(followLinks(path)), backupInterval_(backupInterval) {
    try {
        open();
    } catch (const UnwritableStore& error) {
        entries_ = readCopy();
        dbg::Debug::error() << error.what() << "; settings are as they were stored, and none can be stored until the "
                            << "disk takes them" << std::endl;
    }
}

Store::~Store() {
    try {
        if (database_) renewIfDisplaced();
    } catch (const std::exception& error) {
        dbg::Debug::error() << error.what() << "; the settings are lost with the deleted files" << std::endl;
    }
}

void Store::open() {
    try {
        const std::size_t lost = changesBehindDamage(path_ + "-wal");
        database_ = std::make_unique<Database>(path_);
        entries_ = database_->load();
        if (lost > 0) {
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
    planBackup();
}

void Store::restore(const std::string& damage) {
    database_.reset();
    std::error_code unknown;
    if (isEmpty(path_)) {
        dbg::Debug::error() << damage << std::endl;
        std::filesystem::remove(path_, unknown);
    } else if (std::filesystem::exists(path_, unknown)) {  // not when an earlier attempt got no further than this
        const std::string aside = setAside(path_);
        dbg::Debug::error() << damage << "; it is kept as " << aside << std::endl;
    }
    for (const std::string& backup : backupsOf(path_)) {
        try {
            copyFile(backup, path_);
            database_ = std::make_unique<Database>(path_);
            entries_ = database_->load();
            dbg::Debug::error() << "Settings are as they were in the backup " << backup << ": " << entries_.size()
                                << " stored values" << std::endl;
            return;
        } catch (const DamagedStore& error) {
            dbg::Debug::error() << "The backup " << backup << " is no good: " << error.what() << std::endl;
            database_.reset();
            std::error_code ignored;
            std::filesystem::remove(backup, ignored);
            std::filesystem::remove(path_, ignored);
            std::filesystem::remove(path_ + "-wal", ignored);
        }
    }
    dbg::Debug::error() << "There is no good backup: settings start at their defaults" << std::endl;
    entries_.clear();
    database_ = std::make_unique<Database>(path_);
}

// What can be read of the store without writing beside it, as SQLite would.
std::vector<IStore::Entry> Store::readCopy() const {
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
    // With defaults in the place of what may be good, sets would make a mixture of the two.
    if (isUnreadable) throw StoreException(path_ + ": cannot be read, nor written");
    return {};
}

std::vector<IStore::Entry> Store::load() {
    if (!entries_.empty() || !database_) return std::exchange(entries_, {});
    return database_->load();
}

void Store::write(const std::vector<Entry>& entries) {
    if (entries.empty()) return;
    if (!database_) {
        open();
        entries_.clear();
    } else {
        renewIfDisplaced();
    }
    commit(entries);
}

void Store::commit(const std::vector<Entry>& entries) {
    database_->write(entries);
    if (Clock::now() >= nextBackup_) backUp();
}

void Store::rebuild(const std::vector<Entry>& entries) {
    restore(path_ + ": is damaged");
    entries_.clear();
    planBackup();
    commit(entries);
}

// The database that is open still has everything: a copy takes the place of whatever is at the path now. Until that
// succeeds nothing is written, as it would end up in files that have no name.
void Store::renewIfDisplaced() {
    using State = FileMark::State;
    if (database_->isInPlace()) return;
    const State file = database_->fileState();
    const State log = database_->logState();
    const bool isLogOnly = file == State::inPlace;
    std::string report = path_ + (isLogOnly ? "-wal: was " : ": was ") +
                         ((isLogOnly ? log : file) == State::deleted ? "deleted" : "replaced") + " while in use";
    if (file == State::replaced && isInUse(path_)) throw StoreException(report + " by another process, which uses it");
    const std::string fresh = beginStore(path_);
    const std::size_t count = database_->copyTo(fresh);
    if (file == State::replaced) {
        std::error_code none;
        if (log == State::inPlace) std::filesystem::remove(path_ + "-wal", none);  // it is not the other file's
        report += "; the other file is kept as " + setAside(path_);
    }
    install(fresh, path_);
    database_.reset();  // before there is a new log, which it would take for its own
    dbg::Debug::error() << report << "; the settings are written anew: " << count << " stored values" << std::endl;
    entries_.clear();
    database_ = std::make_unique<Database>(path_);
    planBackup();
}

// A store that never had two backups is a young one.
std::chrono::milliseconds Store::pauseUntilBackup() const {
    return backupsOf(path_).size() < 2 ? std::min<std::chrono::milliseconds>(backupInterval_, secondBackup)
                                       : backupInterval_;
}

void Store::planBackup() {
    const std::optional<std::chrono::seconds> age = ageOfBackup(path_);
    const std::chrono::milliseconds pause = pauseUntilBackup();
    const bool due = !age || *age < std::chrono::seconds(0) || *age >= pause;
    if (!due) {
        nextBackup_ = Clock::now() + pause - *age;
    } else if (entries_.empty()) {
        nextBackup_ = Clock::now();  // with the next write: of nothing none is made
    } else {
        backUp();
    }
}

void Store::backUp() {
    nextBackup_ = Clock::now() + backupInterval_;
    try {
        database_->copyTo(beginBackup(path_));
        keepBackup(path_);
        nextBackup_ = Clock::now() + pauseUntilBackup();
    } catch (const DamagedStore&) {
        throw;
    } catch (const StoreException& error) {
        dbg::Debug::warning() << "No backup of the settings was made: " << error.what() << std::endl;
        nextBackup_ = Clock::now() + std::min<std::chrono::milliseconds>(backupInterval_, retryBackup);
    }
}

}  // namespace propertyservice
