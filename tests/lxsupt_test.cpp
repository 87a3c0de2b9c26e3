// The install path.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "guarded_buffer.h"
#include "zebcs/product.h"

namespace {

using sandbox::GuardedBuffer;

const std::string kInstallPath = "/opt/vorn/fleetops/";

std::string BytesOf(const GuardedBuffer &buffer) { return {buffer.data<char>(), buffer.size()}; }

}  // namespace

TEST(OSInitZEBInstallPath, TooLittleRoomIsAnsweredWithTheSize) {
  for (u32 room = 0; room < 20; ++room) {
    const GuardedBuffer buffer(room);
    u32 size = room;
    EXPECT_EQ(OSInitZEBInstallPath(buffer.data<astring>(), &size), SM_STATUS_BUFFER_TOO_SMALL) << room;
    EXPECT_EQ(size, 20u) << room;
    EXPECT_EQ(BytesOf(buffer), std::string(room, static_cast<char>(GuardedBuffer::kFill))) << room;
  }
}

TEST(OSInitZEBInstallPath, StoresThePathAndFillsTheRoomWithZeros) {
  for (const u32 room : {20u, 21u, 22u, 255u, 256u, 4096u, 100000u}) {
    for (const sandbox::Guard guard : {sandbox::Guard::kAfter, sandbox::Guard::kBefore}) {
      const GuardedBuffer buffer(room, guard);
      u32 size = room;
      EXPECT_EQ(OSInitZEBInstallPath(buffer.data<astring>(), &size), SM_STATUS_SUCCESS) << room;
      EXPECT_EQ(size, 20u) << room;
      EXPECT_EQ(BytesOf(buffer), kInstallPath + std::string(room - kInstallPath.size(), '\0')) << room;
    }
  }
}

TEST(OSInitZEBInstallPath, SizeIsThatOfTheText) {
  u32 size = 0;
  astring path[20];
  ASSERT_EQ(OSInitZEBInstallPath(path, &size), SM_STATUS_BUFFER_TOO_SMALL);
  ASSERT_EQ(OSInitZEBInstallPath(path, &size), SM_STATUS_SUCCESS) << "what the failure asks for is enough";
  EXPECT_EQ(size, std::strlen(path) + 1);
}

TEST(OSInitZEBInstallPath, ArgumentsAreRequired) {
  const GuardedBuffer buffer(20);
  u32 size = 20;
  EXPECT_EQ(OSInitZEBInstallPath(nullptr, &size), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(size, 20u);
  EXPECT_EQ(OSInitZEBInstallPath(buffer.data<astring>(), nullptr), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(BytesOf(buffer), std::string(20, static_cast<char>(GuardedBuffer::kFill)));
}
