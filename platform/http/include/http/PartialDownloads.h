// Removes what downloads leave behind when the process is killed.
#pragma once

namespace zav {

/// Removes regular files named ".NAME.part" from the download folders. Logs each one: an info line, or a warning if it
/// cannot be removed. Does not follow symbolic links. Must not be called while a download is running, which would lose
/// its file. Does not throw.
void removePartialDownloads() noexcept;

}  // namespace zav
