#pragma once
// Names of the temporaries a transfer writes beside a destination before it
// renames them into place, and how a listing tells them apart.
//
// Every temporary is "." + the destination's name (cut to 200 bytes, within
// NAME_MAX) + ".sshfa-" + a suffix: 8 random hex digits, or, for a file that
// may resume, "partial-SIZE-MTIME" of the source, so that the next run finds
// it and continues it only while the source still has that size and time.
// Pure functions.

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>

namespace foundation::sshclient::internal::transfer {

// The temporary's name for a destination name and a suffix.
[[nodiscard]] std::string temporaryName(std::string_view name, std::string_view suffix);
// The resumable temporary's name for a destination name and its source.
[[nodiscard]] std::string resumableName(std::string_view name, std::uint64_t size, std::optional<std::uint32_t> mtime);
// A random one.
[[nodiscard]] std::string randomTemporaryName(std::string_view name, std::mt19937_64& random);
// The destination name (cut as above) a temporary of ours was made for;
// nullopt for any other name.
[[nodiscard]] std::optional<std::string_view> temporaryOwner(std::string_view name) noexcept;
// A destination name cut as its temporaries' names carry it.
[[nodiscard]] std::string_view ownerKey(std::string_view name) noexcept;

}  // namespace foundation::sshclient::internal::transfer
