// The ARM64 processor context as bytes, from a structure in which every field has a value of its own.
#include "errorreport/arm64_context.h"

#include "stream/memory_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using corvo::errorreport::arm64_context;

namespace {

// A reader of its own: takes the fields off in the order in which they must stand.
class reader {
public:
    explicit reader(const arm64_context& context) {
        corvo::stream::memory_file out;
        write_context(out, context);
        m_bytes.assign(out.data(), out.data() + out.size());
    }
    std::uint32_t u32() { return static_cast<std::uint32_t>(number(4)); }
    std::uint64_t u64() { return number(8); }
    std::size_t left() const { return m_bytes.size() - m_at; }

private:
    std::uint64_t number(std::size_t size) {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < size; ++i) {
            value |= std::uint64_t{m_bytes.at(m_at + i)} << (8 * i);
        }
        m_at += size;
        return value;
    }
    std::vector<unsigned char> m_bytes;
    std::size_t m_at = 0;
};

arm64_context filled(std::uint32_t flags) {
    arm64_context context{};
    context.context_flags = flags;
    context.cpsr = 0x60000000;
    for (unsigned int i = 0; i < 29; ++i) {
        context.x[i] = 0x1000000000000000 + i;
    }
    context.fp = 0x2000000000000001;
    context.lr = 0x2000000000000002;
    context.sp = 0x2000000000000003;
    context.pc = 0x2000000000000004;
    for (unsigned int i = 0; i < 32; ++i) {
        context.v[i][0] = 0x3000000000000000 + i;
        context.v[i][1] = 0x4000000000000000 + i;
    }
    context.fpcr = 0x51;
    context.fpsr = 0x52;
    for (unsigned int i = 0; i < 8; ++i) {
        context.bcr[i] = 0x60 + i;
        context.bvr[i] = 0x7000000000000000 + i;
    }
    for (unsigned int i = 0; i < 2; ++i) {
        context.wcr[i] = 0x80 + i;
        context.wvr[i] = 0x9000000000000000 + i;
    }
    return context;
}

void expect_all_blocks(reader in) {
    for (unsigned int i = 0; i < 29; ++i) {
        EXPECT_EQ(0x1000000000000000 + i, in.u64()) << "X" << i;
    }
    EXPECT_EQ(0x2000000000000001U, in.u64());
    EXPECT_EQ(0x2000000000000002U, in.u64());

    EXPECT_EQ(0x2000000000000001U, in.u64());
    EXPECT_EQ(0x2000000000000002U, in.u64());
    EXPECT_EQ(0x2000000000000003U, in.u64());
    EXPECT_EQ(0x2000000000000004U, in.u64());
    EXPECT_EQ(0x60000000U, in.u32());

    for (unsigned int i = 0; i < 32; ++i) {
        EXPECT_EQ(0x3000000000000000 + i, in.u64()) << "V" << i;
        EXPECT_EQ(0x4000000000000000 + i, in.u64()) << "V" << i;
    }
    EXPECT_EQ(0x51U, in.u32());
    EXPECT_EQ(0x52U, in.u32());

    for (unsigned int i = 0; i < 8; ++i) {
        EXPECT_EQ(0x60 + i, in.u32());
    }
    for (unsigned int i = 0; i < 8; ++i) {
        EXPECT_EQ(0x7000000000000000 + i, in.u64());
    }
    EXPECT_EQ(0x80U, in.u32());
    EXPECT_EQ(0x81U, in.u32());
    EXPECT_EQ(0x9000000000000000U, in.u64());
    EXPECT_EQ(0x9000000000000001U, in.u64());
    EXPECT_EQ(0U, in.left());
}

TEST(arm64_context, has_the_platforms_layout) {
    EXPECT_EQ(912U, sizeof(arm64_context));
    EXPECT_EQ(4U, offsetof(arm64_context, cpsr));
    EXPECT_EQ(240U, offsetof(arm64_context, fp));
    EXPECT_EQ(248U, offsetof(arm64_context, lr));
    EXPECT_EQ(264U, offsetof(arm64_context, pc));
    EXPECT_EQ(788U, offsetof(arm64_context, fpsr));
    EXPECT_EQ(824U, offsetof(arm64_context, bvr));
    EXPECT_EQ(888U, offsetof(arm64_context, wcr));
}

TEST(arm64_context, all_blocks_in_order_with_the_frame_registers_twice) {
    reader in(filled(0x40000F));
    EXPECT_EQ(0x40000FU, in.u32());
    expect_all_blocks(in);
}

TEST(arm64_context, the_processors_bit_alone_brings_all_blocks) {
    reader in(filled(0x400000));
    EXPECT_EQ(0x400000U, in.u32());
    expect_all_blocks(in);
}

TEST(arm64_context, without_the_processors_bit_each_block_has_a_bit_of_its_own) {
    EXPECT_EQ(4U, reader(filled(0)).left());
    EXPECT_EQ(4U + 36, reader(filled(1)).left());
    EXPECT_EQ(4U + 248, reader(filled(2)).left());
    EXPECT_EQ(4U + 520, reader(filled(4)).left());
    EXPECT_EQ(4U + 120, reader(filled(8)).left());
    EXPECT_EQ(4U, reader(filled(0x10)).left());
}

TEST(arm64_context, whole_context_has_928_bytes) {
    EXPECT_EQ(928U, reader(filled(0x40001F)).left());
}

} // namespace
