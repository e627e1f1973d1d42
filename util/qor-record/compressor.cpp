#include "output_file.h"

namespace qor::record {

std::unique_ptr<compressor> make_compressor(compression, std::string&) { return nullptr; }

} // namespace qor::record
