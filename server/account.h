// The account a request acts for: the developer-key digest the kit sends in its account header,
// and the hash of it that the server stores. Free functions; thread-safe.
#pragma once

#include <set>
#include <string>
#include <string_view>

namespace omra::server {

// 32 lower-case hexadecimal digits, the form of a developer-key digest.
bool isAccountDigest(std::string_view text);

// The lower-case hex SHA-256 of the digest: what stored maps and sessions carry as "Account", so
// that a copy of the store does not hand out the digests that open the accounts.
std::string accountHash(std::string_view digest);

// An allow-list file: one digest a line; blank lines and text after "#" are ignored. False with
// *error naming the first bad line; digests are added to *out.
bool parseAllowedKeys(std::string_view text, std::set<std::string>* out, std::string* error);

}  // namespace omra::server
