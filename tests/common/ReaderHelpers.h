#pragma once

#include "DAbstractImageReader.h"
#include "DImage.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace norvexa_test {

/// The whole of a file, as a string or a vector of char.
template <class Bytes = std::vector<char>>
Bytes fileBytes(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << "missing file " << path;
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

/// The first `length` bytes, as a reader takes them from memory.
template <class Bytes>
norvexa::imglib::DAbstractImageReader::Data readerData(const Bytes& bytes, std::size_t length)
{
    norvexa::imglib::DAbstractImageReader::Data data;
    data.resize(length);
    if (length)
        std::memcpy(data.data(), bytes.data(), length);
    return data;
}
template <class Bytes>
norvexa::imglib::DAbstractImageReader::Data readerData(const Bytes& bytes)
{
    return readerData(bytes, bytes.size());
}

/// The pixel bytes of an image.
inline std::vector<char> pixelBytes(const norvexa::imglib::DImage& image)
{
    return std::vector<char>(image.cdata(), image.cdata() + image.size() * image.dataSize());
}

} // namespace norvexa_test
