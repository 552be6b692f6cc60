# cmake -P CheckIncludes.cmake FOLDER: fails when a source of the folder includes anything but PelorinCore, the
# JSON header and the standard headers below. Threads, files and the like are left out of these on purpose:
# what the core needs of the world comes to it as arguments.
set(standard algorithm array bit cctype charconv chrono climits cmath compare concepts cstddef cstdint cstdio cstdlib
    cstring deque exception expected functional initializer_list iterator limits list map memory new numbers numeric
    optional queue ranges set source_location span stdexcept string string_view system_error tuple type_traits
    unordered_map unordered_set utility variant vector version)
list(JOIN standard "|" standard)
set(allowed "^(\"PelorinCore/[A-Za-z0-9/]+\\.h\"|<nlohmann/json\\.hpp>|<nlohmann/json_fwd\\.hpp>|<(${standard})>)$")

math(EXPR last "${CMAKE_ARGC} - 1")
set(folder ${CMAKE_ARGV${last}})
file(GLOB_RECURSE sources ${folder}/*.cpp ${folder}/*.h)
if(NOT sources)
    message(FATAL_ERROR "no sources in ${folder}")
endif()
foreach(source IN LISTS sources)
    file(STRINGS ${source} lines REGEX "^[ \t]*#[ \t]*include")
    foreach(line IN LISTS lines)
        string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*([\"<][^\">]*[\">]).*" "\\1" include "${line}")
        if(NOT include MATCHES "${allowed}")
            message(SEND_ERROR "${include} in ${source}")
        endif()
    endforeach()
endforeach()
