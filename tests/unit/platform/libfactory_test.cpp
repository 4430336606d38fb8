#include "libfactory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "test_support.h"

namespace {

using platform_test::temp_root;
using platform_test::write_file;

std::string field(const char (&text)[FACTORY_TEXT_SIZE])
{
    return std::string(text, strnlen(text, FACTORY_TEXT_SIZE));
}

class factory_test : public ::testing::Test {
protected:
    void write(const std::string& content) { write_file(root.path() + "/etc/factory", content); }
    temp_root root;
};

TEST_F(factory_test, every_field_is_read)
{
    write("board=VX-3100\nhw=rev B\nserial=A1B2C3D4\nmac=00:11:22:33:44:55\n");
    factory_data_t data;
    ASSERT_EQ(libfactory_load(&data), 0);
    EXPECT_EQ(data.version, 1u);
    EXPECT_EQ(field(data.board), "VX-3100");
    EXPECT_EQ(field(data.hw), "rev B");
    EXPECT_EQ(field(data.serial), "A1B2C3D4");
    EXPECT_EQ(field(data.mac), "00:11:22:33:44:55");
}

TEST_F(factory_test, missing_keys_stay_empty_and_unknown_ones_are_ignored)
{
    write("# factory record\nboard=VX-3100\ncolour=blue\nnot a key line\n\nserial=S1");
    factory_data_t data;
    std::memset(&data, 0xAB, sizeof data);
    ASSERT_EQ(libfactory_load(&data), 0);
    EXPECT_EQ(data.version, 1u);
    EXPECT_EQ(field(data.board), "VX-3100");
    EXPECT_EQ(field(data.serial), "S1");  // no newline at the end of the file
    for (char c : data.hw)
        EXPECT_EQ(c, '\0');
    for (char c : data.mac)
        EXPECT_EQ(c, '\0');
}

TEST_F(factory_test, a_value_runs_to_the_end_of_its_line)
{
    write("hw=rev B = 2 # not a comment\r\nmac=aa\n");
    factory_data_t data;
    ASSERT_EQ(libfactory_load(&data), 0);
    EXPECT_EQ(field(data.hw), "rev B = 2 # not a comment");
    EXPECT_EQ(field(data.mac), "aa");
}

TEST_F(factory_test, a_thirty_two_character_value_fills_its_field_without_a_terminator)
{
    const std::string exact(32, 'x');
    write("serial=" + exact + "\nboard=" + std::string(40, 'b') + "\nhw=" + std::string(31, 'h') + "\n");
    factory_data_t data;
    ASSERT_EQ(libfactory_load(&data), 0);
    EXPECT_EQ(std::memcmp(data.serial, exact.data(), 32), 0);
    EXPECT_EQ(std::memcmp(data.board, std::string(32, 'b').data(), 32), 0);  // cut at 32
    EXPECT_EQ(std::memcmp(data.hw, std::string(31, 'h').data(), 31), 0);
    EXPECT_EQ(data.hw[31], '\0');
}

TEST_F(factory_test, a_missing_file_zeroes_the_record_and_fails)
{
    factory_data_t data;
    std::memset(&data, 0xAB, sizeof data);
    EXPECT_EQ(libfactory_load(&data), -1);
    const auto* bytes = reinterpret_cast<const unsigned char*>(&data);
    for (size_t i = 0; i < sizeof data; ++i)
        ASSERT_EQ(bytes[i], 0) << "byte " << i;
}

}  // namespace
