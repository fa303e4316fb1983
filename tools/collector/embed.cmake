# Writes SOURCE, a C++ file, with the bytes of PAGE: cmake -D PAGE=... -D SOURCE=... -P embed.cmake
file(READ ${PAGE} bytes HEX)
string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
file(WRITE ${SOURCE} "#include \"tools/collector/page.h\"

namespace collector {
namespace {

constexpr unsigned char kBytes[] = {
${bytes}0};

}  // namespace

std::string_view pageFile() { return {reinterpret_cast<const char*>(kBytes), sizeof kBytes - 1}; }

}  // namespace collector
")
