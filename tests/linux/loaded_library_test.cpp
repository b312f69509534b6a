// What is loaded when it is first needed: found under the name that linking notes, or refused with what is
// missing.
#include "linux/loaded_library.h"

#include <gtest/gtest.h>

namespace tavr
{

namespace
{

template<class Call>
std::string WhyNot(Call call)
{
    try {
        call();
    } catch (const LibraryError& error) {
        return error.what();
    }
    return "nothing was thrown";
}

TEST(LoadedLibrary, FindsAFunction)
{
    double (*root)(double) = nullptr;
    LoadedLibrary("libm.so.6").Find(root, "sqrt");
    EXPECT_EQ(3.0, root(9.0));
}

TEST(LoadedLibrary, NamesWhatIsMissing)
{
    EXPECT_EQ("libnowhere.so.7: cannot open shared object file: No such file or directory",
              WhyNot([] { LoadedLibrary("libnowhere.so.7"); }));
    double (*root)(double) = nullptr;
    EXPECT_EQ("libm.so.6 has no squareroot",
              WhyNot([&] { LoadedLibrary("libm.so.6").Find(root, "squareroot"); }));
    EXPECT_EQ(nullptr, root);
}

} // namespace

} // namespace tavr
