// The web API's messages on the wire: 4 bytes of length, the most significant first, then that many bytes of
// JSON text. Nothing is ever sent empty.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tavr
{

inline constexpr size_t kLargestWebApiMessage = 1 << 20; // bytes of text, of requests and answers alike

using FrameHead = std::array<char, 4>;

inline FrameHead MakeFrameHead(size_t size)
{
    return {static_cast<char>(size >> 24), static_cast<char>(size >> 16), static_cast<char>(size >> 8),
            static_cast<char>(size)};
}

// 0: not a size that a message may have.
inline size_t SizeInFrameHead(const FrameHead& head)
{
    size_t size = 0;
    for (const char byte : head) {
        size = size << 8 | static_cast<unsigned char>(byte);
    }
    return size <= kLargestWebApiMessage ? size : 0;
}

} // namespace tavr
