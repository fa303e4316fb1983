# Writes SOURCE, a C++ file, with the bytes of PAGE. A line "@name@" of PAGE stands for the file of
# that name beside it: cmake -D PAGE=... -D SOURCE=... -P embed.cmake
get_filename_component(folder ${PAGE} DIRECTORY)
file(READ ${PAGE} bytes HEX)
file(STRINGS ${PAGE} marks REGEX "^@[a-z]+[.](css|js)@$")
foreach(mark ${marks})
  string(REPLACE "@" "" name ${mark})
  file(READ ${folder}/${name} part HEX)
  string(HEX "${mark}\n" mark)
  string(REPLACE ${mark} "${part}" bytes "${bytes}")
endforeach()
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
