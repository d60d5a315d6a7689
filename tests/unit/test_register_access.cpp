// Register access of the driver base against the virtual board's buses and
// physical memory: byte orders on the wire, failure results, mappings.
#include <gtest/gtest.h>

#include "driver/DriverBase.h"
#include "sim/VirtualBoard.h"

using vsim::Board;

namespace {

class RegisterAccess : public ::testing::Test {
protected:
    RegisterAccess()
    {
        Board::instance().activate();
        Board::instance().reset();
    }
    void TearDown() override { Board::instance().deactivate(); }
    std::shared_ptr<vsim::RegisterChip> chipAt(int bus, uint8_t addr8, int regBytes)
    {
        auto chip = std::make_shared<vsim::RegisterChip>(regBytes);
        Board::instance().attachI2c(bus, addr8 >> 1, chip);
        return chip;
    }

    DriverBase d;
};

TEST_F(RegisterAccess, WriteSendsMostSignificantBytesFirstReadSendsTheRegisterLowByteFirst)
{
    auto wide = chipAt(0, 0x90, 2);
    EXPECT_EQ(d.write(0, 0x90, 0x1234, 0xAB, 2, 1), 1);
    EXPECT_EQ(wide->reg(0x1234), 0xAB);
    auto narrow = chipAt(2, 0x40, 1);
    EXPECT_EQ(d.write(2, 0x40, 0x10, 0xBEEF, 1, 2), 1);
    EXPECT_EQ(narrow->reg(0x10), 0xBE);
    EXPECT_EQ(narrow->reg(0x11), 0xEF);

    // A chip that reads its pointer most significant byte first looks at
    // 0x3412; of the two bytes it gives, only the first is returned.
    auto chip = chipAt(1, 0x90, 2);
    chip->setReg(0x3412, 0x5A);
    chip->setReg(0x3413, 0xC3);
    chip->setReg(0x1234, 0x11);
    EXPECT_EQ(d.read(1, 0x90, 0x1234, 2, 2), 0x5A);
    EXPECT_EQ(chip->pointer(), 0x3414);
}

TEST_F(RegisterAccess, FailuresGiveZeroForTransfersAndMinusOneForMissingDevices)
{
    auto chip = chipAt(1, 0x34, 1);
    chip->setReg(7, 0x1F);

    // No bus at all: write 0, read -1.
    EXPECT_EQ(d.write(5, 0x34, 7, 1, 1, 1), 0);
    EXPECT_EQ(d.read(5, 0x34, 7, 1, 1), -1);

    // The bus refuses the address.
    Board::instance().setI2cSelectFails(1, true);
    EXPECT_EQ(d.write1_8(0x34, 7, 1), 0);
    EXPECT_EQ(d.read1_8(0x34, 7), -1);
    Board::instance().setI2cSelectFails(1, false);

    // The chip does not acknowledge: the read reads as a register holding 0,
    // and the write is not checked.
    Board::instance().setI2cFailing(1, 0x34 >> 1, true);
    EXPECT_EQ(d.read1_8(0x34, 7), 0);
    EXPECT_EQ(d.write1_8(0x34, 7, 0x02), 1);
    Board::instance().setI2cFailing(1, 0x34 >> 1, false);
    EXPECT_EQ(chip->reg(7), 0x1F);
    EXPECT_EQ(d.read1_8(0x34, 7), 0x1F);
}

TEST_F(RegisterAccess, BitBangedBusesPackOneWordAndPickTheDeviceByIndex)
{
    auto plain = std::make_shared<vsim::GpioI2cRegisters>();
    auto second = std::make_shared<vsim::GpioI2cRegisters>();
    Board::instance().attachGpioI2c(-1, 0x98, plain);
    Board::instance().attachGpioI2c(2, 0x98, second);

    EXPECT_TRUE(d.swrite(0x98, 0x21, 0x7F, -1, false));
    EXPECT_TRUE(d.swrite(0x98, 0x1234, 0x55, 2, true));
    EXPECT_EQ(plain->reg(0x21), 0x7F);
    EXPECT_EQ(second->reg(0x1234), 0x55);
    // The narrow form takes only the register's low byte.
    EXPECT_TRUE(d.swrite(0x98, 0x1299, 0x01, 2, false));
    EXPECT_EQ(second->reg(0x99), 0x01);

    EXPECT_EQ(d.sread(0x98, 0x21, -1, false), 0x7Fu);
    EXPECT_EQ(d.sread(0x98, 0x1234, 2, true), 0x55u);
    // A device that does not answer leaves the packed word's value byte 0.
    EXPECT_EQ(d.sread(0x50, 0x21, -1, false), 0u);
    EXPECT_FALSE(d.swrite(0x50, 0x21, 1, -1, false));

    // No such bus device.
    EXPECT_EQ(d.sread(0x98, 0x21, 7, false), 0xFFFFFFFFu);
    EXPECT_FALSE(d.swrite(0x98, 0x21, 1, 7, false));
}

TEST_F(RegisterAccess, MemmapReusesMappingsThatHoldTheRangeAndMapAnewOtherwise)
{
    EXPECT_EQ(d.memmap(0x12000000, 0), nullptr);

    const unsigned long base = 0x12020000;
    auto* first = static_cast<char*>(d.memmap(base + 0x10, 128));
    ASSERT_NE(first, nullptr);
    DriverBase::MemMapNode* head = DriverBase::pTMMAPNode;
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->physStart, base);
    EXPECT_EQ(head->length, 4096u);

    // Inside the page: same mapping, offset kept, use count up.
    auto* inside = static_cast<char*>(d.memmap(base + 0x800, 128));
    EXPECT_EQ(inside, first - 0x10 + 0x800);
    EXPECT_EQ(head->refCount, 2u);
    EXPECT_EQ(head->next, nullptr);

    // The last byte would fall past the page: a second mapping at the tail.
    auto* edge = static_cast<char*>(d.memmap(base + 4096 - 64, 128));
    ASSERT_NE(edge, nullptr);
    ASSERT_NE(head->next, nullptr);
    EXPECT_EQ(head->next->physStart, base);
    EXPECT_EQ(head->next->length, 8192u);

    // Writes through the mapping reach the board's memory and back.
    d.mwrite(base + 0x40, 0xCAFEF00D);
    EXPECT_EQ(Board::instance().mem32(base + 0x40), 0xCAFEF00Du);
    Board::instance().setMem32(base + 0x44, 0x01020304);
    EXPECT_EQ(d.mread(base + 0x44), 0x01020304u);
}

}  // namespace
