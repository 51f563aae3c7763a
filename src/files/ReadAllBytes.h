#pragma once
#include <fstream>
#include <vector>

namespace quorvant::shared::x509 {

// Reads an opened binary stream from its start to its end in one read. The
// size is the stream's end position; a negative one (an unseekable file)
// raises std::length_error from the byte array, as callers expect.
std::vector<unsigned char> ReadAllBytes(std::ifstream& stream);

}  // namespace quorvant::shared::x509
