# Builds everything with the sanitizers of TRELM_SANITIZE. Sets `sanitizer_runtimes`: their run-time libraries, with colons between.
set(sanitizer_runtimes "")
if(NOT TRELM_SANITIZE)
    return()
endif()
add_compile_options(-fsanitize=${TRELM_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
add_link_options(-fsanitize=${TRELM_SANITIZE})

foreach(pair "address=asan" "thread=tsan")
    string(REGEX MATCH "^[^=]*" sanitizer ${pair})
    string(REGEX MATCH "[^=]*$" runtime ${pair})
    if(NOT TRELM_SANITIZE MATCHES ${sanitizer})
        continue()
    endif()
    if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
        set(runtime libclang_rt.${runtime}-${CMAKE_SYSTEM_PROCESSOR}.so)
    else()
        set(runtime lib${runtime}.so)
    endif()
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${runtime}
        OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    file(REAL_PATH ${path} path)
    if(NOT EXISTS ${path})
        message(FATAL_ERROR "${CMAKE_CXX_COMPILER} has no ${runtime}. Install the compiler's run-time libraries "
            "(libclang-rt-dev or libclang-rt-VERSION-dev for clang), or build without TRELM_SANITIZE.")
    endif()
    list(APPEND sanitizer_runtimes ${path})
endforeach()

# The simulated host is instrumented and is preloaded into programs that are not, so a process needs the run-time library as a
# shared object. clang++ links programs with a copy of it unless told otherwise, and leaves finding the object to them.
if(CMAKE_CXX_COMPILER_ID MATCHES Clang AND NOT TRELM_BUILD_FUZZ)
    add_link_options(-shared-libsan)
    foreach(path IN LISTS sanitizer_runtimes)
        cmake_path(GET path PARENT_PATH directory)
        list(APPEND CMAKE_BUILD_RPATH ${directory})
    endforeach()
endif()
list(JOIN sanitizer_runtimes ":" sanitizer_runtimes)
