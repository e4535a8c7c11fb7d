#pragma once

#include <sys/types.h>

#include <string>

namespace tunnel_mngr {

enum class WriteResult { done, notOpened, notWritten };

/// Creates or empties a file of an OpenVPN tunnel and writes the text, if there is any, with
/// one system call. A symbolic link in the file's place is not followed.
///
/// @param mode  The file's mode afterwards, whatever the process's umask and an existing
///        file's mode are. A mode that cannot be set is logged.
/// @return what became of it; the caller logs a failure. A file that could not be written
///         to its end stays.
[[nodiscard]] WriteResult writeRunFile(const std::string& path, mode_t mode,
                                       const std::string& text);

}  // namespace tunnel_mngr
