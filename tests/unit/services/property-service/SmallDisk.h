// A small disk that a test can fill or make read-only. Needs the right to mount, which lab/sandbox gives; only this
// process sees the mount.
#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

class SmallDisk {
 public:
    explicit SmallDisk(const std::string& path) : path_(path) {
        std::filesystem::create_directories(path_);
        check(::unshare(CLONE_NEWNS), "unshare");
        check(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "private mounts");
        check(::mount("tmpfs", path_.c_str(), "tmpfs", 0, "size=256k,mode=700"), "mount");
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    ~SmallDisk() { ::umount2(path_.c_str(), MNT_DETACH); }

    void setReadOnly(bool readOnly) const {
        check(::mount(nullptr, path_.c_str(), nullptr, readOnly ? MS_REMOUNT | MS_RDONLY : MS_REMOUNT, "size=256k"),
              "remount");
    }

    /// Fills the disk completely.
    void fill() const {
        std::ofstream file(path_ + "/filler", std::ios::binary);
        while (file.write(std::string(4096, 'x').data(), 4096).flush()) {
        }
    }
    void makeRoom() const { std::filesystem::remove(path_ + "/filler"); }

    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
    static void check(int result, const char* what) {
        if (result != 0) throw std::system_error(errno, std::generic_category(), what);
    }

    const std::string path_;
};
