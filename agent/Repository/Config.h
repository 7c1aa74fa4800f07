// Config: the properties of a repository that never change.
#pragma once

#include "agent/Repository/Json.h"
#include "agent/Repository/Polynomial.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Agent::Repo {

struct Config
{
    static constexpr std::uint32_t OldestVersion = 1; ///< of the format; without compression
    static constexpr std::uint32_t NewestVersion = 2; ///< of the format; with compression

    std::uint32_t version = NewestVersion; ///< of the format
    Id id;                                 ///< of the repository, random
    Polynomial polynomial = 0;             ///< by which files are cut into chunks
    std::vector<RawMember> unknown;        ///< other members, which ToJson writes last

    /// Reads the JSON text. Raises NoRepository for a version that is not supported. Raises Damaged, with the
    /// offset if there is one, for other text and for a polynomial that is not an irreducible one of degree
    /// 53.
    static Config Parse(std::string_view json);
    std::string ToJson() const;
    /// The configuration of a new repository: a random id and a random polynomial.
    static Config Random(std::uint32_t version = NewestVersion);
};

} // namespace Agent::Repo
