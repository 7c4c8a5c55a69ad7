# Instrumented libraries in a Python that is not instrumented need the sanitizer preloaded, and with
# it the C++ library, whose functions it replaces. Sets `result` to the files, "" without sanitizers.
function(quorvalen_sanitizer_preload result)
  set(preload "")
  foreach(sanitizer address thread)
    if(QUORVALEN_SANITIZERS MATCHES ${sanitizer})
      string(SUBSTRING ${sanitizer} 0 1 letter)
      foreach(library lib${letter}san.so libstdc++.so)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${library}
          OUTPUT_VARIABLE file OUTPUT_STRIP_TRAILING_WHITESPACE)
        string(APPEND preload "${file} ")
      endforeach()
    endif()
  endforeach()
  set(${result} "${preload}" PARENT_SCOPE)
endfunction()
