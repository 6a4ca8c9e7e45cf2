/// What every test program starts with: the locale that its environment asks for, as the program itself has one after GTK's start.
#include <gtest/gtest.h>

#include <clocale>

int main(int argc, char** argv)
{
    std::setlocale(LC_ALL, "");
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
