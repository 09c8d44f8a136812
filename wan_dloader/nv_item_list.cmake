# cmake -DLIST=file -DSOURCE=file -P: turns a product's list of NV items, a row `item size index` a line, '#' beginning a
# comment, into the source that defines NvItemList. A list that no backup could go by is refused with the line's number.
cmake_minimum_required(VERSION 3.21)

file(READ "${LIST}" text)
string(REGEX REPLACE "\r|#[^\n]*" "" text "${text}")
# Beyond these characters a line might fall apart in a list of CMake.
if(text MATCHES "[^\n]*[^0-9 \t\n][^\n]*")
    message(FATAL_ERROR "${LIST}: not 'item size index': ${CMAKE_MATCH_0}")
endif()
string(REPLACE "\n" ";" lines "${text}")

set(number "(0|[1-9][0-9]?[0-9]?[0-9]?[0-9]?)")
set(rows "")
set(line_number 0)
set(last_item -1)
set(last_index -1)
foreach(line IN LISTS lines)
    math(EXPR line_number "${line_number} + 1")
    set(where "${LIST}:${line_number}")
    if(line MATCHES "^[ \t]*$")
        continue()
    endif()
    if(NOT line MATCHES "^[ \t]*${number}[ \t]+${number}[ \t]+${number}[ \t]*$")
        message(FATAL_ERROR "${where}: not 'item size index': ${line}")
    endif()
    set(item ${CMAKE_MATCH_1})
    set(size ${CMAKE_MATCH_2})
    set(index ${CMAKE_MATCH_3})
    if(item GREATER 65535 OR size LESS 1 OR size GREATER 128 OR index GREATER 255)
        message(FATAL_ERROR "${where}: an item is at most 65535, its size 1 to 128, its index at most 255: ${line}")
    endif()
    if(item LESS last_item)
        message(FATAL_ERROR "${where}: items are sorted, but ${item} follows ${last_item}")
    endif()
    if(item GREATER last_item)
        set(last_index -1)
    endif()
    math(EXPR expected "${last_index} + 1")
    if(NOT index EQUAL expected)
        message(FATAL_ERROR "${where}: index ${index} of item ${item} where ${expected} is next")
    endif()
    set(last_item ${item})
    set(last_index ${index})
    string(APPEND rows "    {${item}, ${size}, ${index}},\n")
endforeach()
if(rows STREQUAL "")
    message(FATAL_ERROR "${LIST}: no item in it")
endif()

file(WRITE "${SOURCE}"
"// Generated from the product's list of NV items.
#include \"wan_dloader/nv_tables.h\"

namespace {

constexpr NvItemRow rows[] = {
${rows}};

} // namespace

constinit const std::span<const NvItemRow> NvItemList = rows;
")
