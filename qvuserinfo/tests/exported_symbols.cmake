# Fails unless every global symbol that libqvuserinfo defines in its dynamic symbol table belongs
# to QV::QVUserInfo: anything else exported could be bound by the dynamic linker in place of
# another library's copy, or be relied upon by users as if it were interface.
# Usage: cmake -DNM=<nm> -DLIBRARY=<libqvuserinfo.so> -P exported_symbols.cmake
execute_process(COMMAND ${NM} -D --defined-only --demangle ${LIBRARY}
                OUTPUT_VARIABLE listing ERROR_VARIABLE errors RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}: ${errors}")
endif()

string(REPLACE "\n" ";" lines "${listing}")
set(foreign "")
set(hasConstructor FALSE)
foreach(line IN LISTS lines)
  if(line STREQUAL "")
    continue()
  endif()
  if(NOT line MATCHES "^[0-9a-fA-F]* *([A-Za-z]) (.+)$")
    message(FATAL_ERROR "unexpected line from ${NM}: ${line}")
  endif()
  set(type "${CMAKE_MATCH_1}")
  set(symbol "${CMAKE_MATCH_2}")
  # A local symbol (lower case but for unique "u" and weak "v", "w") binds nothing outside the
  # library: the linker lists some in the table when a library it links against exports them too.
  if(type MATCHES "^[a-tx-z]$")
    continue()
  endif()
  if(symbol MATCHES "^QV::QVUserInfo::QVUserInfo\\(")
    set(hasConstructor TRUE)
  endif()
  if(NOT symbol MATCHES "^QV::QVUserInfo::"
     AND NOT symbol MATCHES "^(typeinfo|typeinfo name|vtable) for QV::QVUserInfo$")
    string(APPEND foreign "  ${symbol}\n")
  endif()
endforeach()

if(NOT hasConstructor)
  message(FATAL_ERROR "${LIBRARY} does not export the constructor of QV::QVUserInfo")
endif()
if(NOT foreign STREQUAL "")
  message(FATAL_ERROR "${LIBRARY} exports symbols outside QV::QVUserInfo:\n${foreign}")
endif()
message(STATUS "${LIBRARY} exports QV::QVUserInfo only")
