// Client helpers of the spool upload: a fresh job name, and a spool file sent in pieces.
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "client/client.h"

namespace kvt::client {

inline constexpr std::size_t kSpoolNameField = 16;  // a name of at most 15 characters

// Fills up to `size` bytes of the body into `buffer`; how many (0: nothing more to give).
using Source = std::function<std::size_t(char* buffer, std::size_t size)>;
// Told after each piece: the bytes sent so far and the whole length.
using Progress = std::function<void(std::uint64_t sent, std::uint64_t total)>;

// CMD_NEW_JOB_NAME: a job name no other upload uses (15 digits). Empty when the server
// gave none; `connection.error()` says why.
std::optional<std::string> FreshJobName(Connection& connection);

// CMD_UPLOAD_SPOOL: sends `name`, `length` and the body that `source` gives, then reads the
// answer: true when the server stored the file, false when it refused it. Empty, with the
// reason in *error, when the request could not be completed; when the source gave out
// before `length` bytes the connection is closed, so that the server stores nothing.
std::optional<bool> UploadSpool(Connection& connection, std::string_view name, std::uint32_t length,
                                const Source& source, const Progress& progress, std::string* error);

}  // namespace kvt::client
