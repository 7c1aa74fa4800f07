// What contents are known by: the SHA-256 of their bytes.
#pragma once

#include "Krt/String/YString.h"

#include <array>
#include <compare>
#include <memory>
#include <string>

struct evp_md_ctx_st;
struct evp_md_st;

namespace Agent {

struct Address
{
    static constexpr std::size_t Size = 32;

    std::array<unsigned char, Size> bytes{};

    /// 64 lower-case hexadecimal digits.
    std::string ToHex() const;
    /// Raises InvalidArgument on anything else than what ToHex gives.
    static Address FromHex(const Krt::YString& text);

    friend auto operator<=>(const Address&, const Address&) = default;
};

/// Computes addresses, one after the other. One thread at a time.
class Sha256
{
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    /// Forgets what was added.
    void Begin();
    void Add(const void* data, std::size_t size);
    /// Of all that was added since Begin, which comes next.
    Address End();

private:
    struct Free
    {
        void operator()(evp_md_ctx_st* context) const;
        void operator()(evp_md_st* algorithm) const;
    };
    std::unique_ptr<evp_md_st, Free> m_algorithm;
    std::unique_ptr<evp_md_ctx_st, Free> m_context;
};

} // namespace Agent
