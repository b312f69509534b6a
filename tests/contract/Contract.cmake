# The contract tests as the target tavr_contract. A program of them links it, a platform, the functions of system.h and
# a main() (GTest::gtest_main will do). Also for projects of others: it needs the tree that it stands in, and nothing of
# our build.
find_package(GTest REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(TAVR_CONTRACT REQUIRED IMPORTED_TARGET jsoncpp sqlite3 liboath)

set(sources core database directory mail secrets support users webapi)
list(TRANSFORM sources REPLACE "(.+)" "${CMAKE_CURRENT_LIST_DIR}/\\1.cpp")
add_library(tavr_contract OBJECT ${sources})
target_compile_features(tavr_contract PUBLIC cxx_std_20)
target_compile_definitions(tavr_contract PRIVATE _GNU_SOURCE)
target_include_directories(tavr_contract PUBLIC ${CMAKE_CURRENT_LIST_DIR}/../..)
target_link_libraries(tavr_contract PUBLIC PkgConfig::TAVR_CONTRACT GTest::gtest)
