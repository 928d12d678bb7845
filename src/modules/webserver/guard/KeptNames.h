#pragma once

#include <array>

/// What the library keeps for good of each head that it is shown: the method, and the names of the fields. So it is to
/// be shown a bounded number of them in the life of the process (of the thread that asks), and no longer ones than
/// anybody needs. Those that are in use are always within the bound; of the others, whoever comes first.
namespace KeptNames {

constexpr int LongestMethod = 32;
constexpr int LongestField = 64;

// RFC 9110, section 5.6.2; by character.
constexpr std::array<bool, 256> makeTokenCharacters()
{
    std::array<bool, 256> are{};
    for (const char* of = "!#$%&'*+-.^_`|~0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"; *of; ++of)
        are.at(static_cast<unsigned char>(*of)) = true;
    return are;
}

inline constexpr std::array<bool, 256> TokenCharacters = makeTokenCharacters();

inline bool isTokenCharacter(char c)
{
    return TokenCharacters.at(static_cast<unsigned char>(c));
}

bool isMethod(const char* begin, const char* end); ///< A token of 32 characters at the most (RFC 9110, section 5.6.2).
/// Whether the library may be shown it; counts it then. What follows a method, at `end`, is a blank.
bool mayShowMethod(const char* begin, const char* end);
bool mayShowField(const char* begin, const char* end); ///< The same, in upper or lower case.

} // namespace KeptNames
