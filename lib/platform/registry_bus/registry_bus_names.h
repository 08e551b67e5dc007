// What client and service have to agree on beyond the interface file.
#pragma once

namespace registry_bus {

inline constexpr char kServiceName[] = "org.orvex.Registry1";
inline constexpr char kObjectPath[] = "/org/orvex/Registry1";

// The service's errors. All but the last have an exception type of their own.
inline constexpr char kInvalidName[] = "org.orvex.Registry1.Error.InvalidName";
inline constexpr char kFull[] = "org.orvex.Registry1.Error.Full";
inline constexpr char kInvalidJson[] = "org.orvex.Registry1.Error.InvalidJson";
inline constexpr char kInvalidEncoding[] = "org.orvex.Registry1.Error.InvalidEncoding";
inline constexpr char kFailed[] = "org.orvex.Registry1.Error.Failed";

}  // namespace registry_bus
