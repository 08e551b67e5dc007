// Digests of files: the one that names a script in logs and reports, and those operators ask for.
#pragma once

#include <functional>
#include <string>
#include <string_view>

// Called between two blocks; what it throws ends the digest.
using DigestProgress = std::function<void()>;

// The SHA-1 of what can be read from the descriptor, from its beginning on, as 40 lower-case
// hexadecimal digits. Moves the descriptor's offset. Blocks; callable from any thread. Throws
// lattix::ErrnoException when reading fails.
std::string FileSha1(int fd, const DigestProgress& progress = {});
std::string Sha1(std::string_view bytes);

// The digest of a descriptor's content by the algorithm's name ("md5", "sha1", "sha224", "sha256",
// "sha384", "sha512", "besha1"), in lower-case hexadecimal digits. "besha1" is SHA-1 with the bytes
// of each of its five words in reverse order, as hardware that reads the words the other way round
// shows it. As FileSha1 otherwise; throws std::invalid_argument for another name.
std::string FileDigest(std::string_view algorithm, int fd, const DigestProgress& progress = {});
// Whether FileDigest knows the name.
bool IsDigestAlgorithm(std::string_view algorithm);
