file(READ ${IN} hex HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
string(REGEX REPLACE "('.x..','.x..','.x..','.x..','.x..','.x..','.x..','.x..','.x..','.x..','.x..','.x..','.x..','.x..','.x..','.x..',)" "\\1\n"
       bytes "${bytes}")
file(WRITE ${OUT} "#pragma once
#include <string_view>
namespace tarvo::resources {
namespace detail {
inline constexpr char ${NAME}Bytes[] = {${bytes}0};
}
inline constexpr std::string_view ${NAME}{detail::${NAME}Bytes, sizeof detail::${NAME}Bytes - 1};
}  // namespace tarvo::resources
")
