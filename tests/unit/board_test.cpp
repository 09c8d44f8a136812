#include "platform/board.h"

#include <array>
#include <cstdlib>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/utsname.h>

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

std::string log_of(const std::function<void()>& call)
{
    ::testing::internal::CaptureStderr();
    call();
    return ::testing::internal::GetCapturedStderr();
}

} // namespace

TEST(Board, AnIdNeedsRoomForSeventeenCharacters)
{
    const std::string too_small = "Not enough buffer size < 17";
    std::array<char, board_id_size> id{'x'};
    const std::string refusal = log_of([&] { EXPECT_EQ(read_board_id(std::span(id).first(16)), -1); });
    EXPECT_THAT(refusal, HasSubstr(too_small));
    EXPECT_EQ(id[0], 'x');
    // No tablet, so what comes of it is a matter of the machine.
    EXPECT_THAT(log_of([&] { (void)read_board_id(id); }), Not(HasSubstr(too_small)));
}

TEST(Board, FourCharactersTellTheType)
{
    const std::pair<std::string, int32_t> rows[] = {
        {"0c01", 3},  {"0d01", 4},  {"0010", 5},  {"0010x", 5}, {"0c", -1},   {"001", -1},
        {"0C01", -1}, {"1c01", -1}, {"c001", -1}, {"0011", -1}, {"0110", -1}, {"", -1},
    };
    for (const auto& [id, type] : rows)
        EXPECT_EQ(get_device_type(id), type) << id;
    EXPECT_EQ(get_device_type({}), -1);
}

TEST(Board, ATypeHasItsName)
{
    const std::pair<int32_t, std::string> rows[] = {
        {-1, "UNKNOWN - -1"}, {0, "KESTREL"}, {1, "LARK"},  {2, "MERLIN"},
        {3, "OSPREY"},        {4, "PIPIT"},   {5, "QUAIL"}, {6, "UNKNOWN - 6"},
    };
    for (const auto& [type, name] : rows)
        EXPECT_THAT(log_of([&, type = type] { show_device_type(type); }),
                    HasSubstr(" I RIL_TESSEL: DEVICE TYPE: " + name + "\n"));
}

TEST(Board, VersionIsThatOfTheKernel)
{
    utsname machine{};
    ASSERT_EQ(uname(&machine), 0);
    const std::string release = machine.release;
    const std::string major = release.substr(0, release.find('.'));
    EXPECT_THAT(log_of([&] { EXPECT_EQ(std::to_string(get_os_version()), major); }),
                HasSubstr(" D RIL_TESSEL: OS version: " + major + "\n"));
}
