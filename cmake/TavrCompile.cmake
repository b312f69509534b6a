# How everything here is compiled. Targets take it by linking tavr_compile.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

add_library(tavr_compile INTERFACE)
target_include_directories(tavr_compile INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_definitions(tavr_compile INTERFACE _GNU_SOURCE)
target_compile_options(tavr_compile INTERFACE
    -Wall -Wextra -Wshadow -Wformat=2 -Wconversion -Wno-sign-conversion -Wnon-virtual-dtor
    -Wold-style-cast -Wcast-qual -Wnull-dereference -Werror
    -fstack-protector-strong -fstack-clash-protection -fcf-protection -fno-plt)
target_link_options(tavr_compile INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack -Wl,--as-needed)

if(TAVR_SANITIZE)
    target_compile_options(tavr_compile INTERFACE -fsanitize=${TAVR_SANITIZE} -fno-sanitize-recover=all
        -fno-omit-frame-pointer
        $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized> -Wno-null-dereference)   # g++ sees both in what the checks add
    target_link_options(tavr_compile INTERFACE -fsanitize=${TAVR_SANITIZE})
    target_compile_definitions(tavr_compile INTERFACE TAVR_SANITIZED)   # for tests alone
else()
    target_compile_options(tavr_compile INTERFACE $<$<NOT:$<CONFIG:>>:-U_FORTIFY_SOURCE> -D_FORTIFY_SOURCE=2)
endif()
