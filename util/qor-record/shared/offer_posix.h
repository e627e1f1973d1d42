// How a process finds its arena: variables of its environment.
#pragma once

#include <cstddef>

namespace qor::record {

// <descriptor>:<recorder>:<spare>:<token>:<socket>
//
// descriptor  the arena of the first program; closed or another file in all others
// socket      the abstract name of the recorder's socket: a process that sends the token receives an arena's descriptor
// recorder, spare  where the socket is out of reach, /proc/<recorder>/fd/<spare> is an arena that nobody has taken yet
inline constexpr char record_variable[] = "QOR_RECORD";
// LD_PRELOAD as it was, for processes that are not recorded.
inline constexpr char preload_variable[] = "QOR_RECORD_PRELOAD";
// The framework's own log, which a launcher may have hidden from the program that it starts.
inline constexpr char memcheck_variable[] = "QOR_RECORD_MEMCHECK";

inline constexpr std::size_t token_size = 32;

} // namespace qor::record
