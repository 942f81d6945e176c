// What downloads leave behind when the process is killed.
#pragma once

namespace zav {

/// Removes the files named ".NAME.part" that an earlier process left half-downloaded in the download folders, with an
/// info line for each; a file that cannot be removed is a warning. Follows no links and touches regular files only.
/// To be called while nothing is downloaded: a running download loses its file. Never throws.
void removePartialDownloads() noexcept;

}  // namespace zav
