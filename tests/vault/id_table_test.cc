// A connection's fixed tables of sessions and blocks: ids found until erased, the capacity
// refused rather than exceeded, and a block's mapping released exactly when its entry goes.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "id_table.h"
#include "shared_block.h"

namespace {

using zel::vault::IdTable;
using zel::vault::SharedBlock;

bool mapped(const uint8_t* page) {
    unsigned char resident;
    return mincore(const_cast<uint8_t*>(page), 1, &resident) == 0 || errno != ENOMEM;
}

SharedBlock anonymousBlock(uint8_t*& data) {
    void* memory = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(memory, MAP_FAILED);
    data = static_cast<uint8_t*>(memory);
    return SharedBlock(data, 4096, 4096, 3);
}

TEST(IdTable, IdsAreFoundUntilErasedAndTheCapacityIsRefusedNotExceeded) {
    IdTable<int, 4> table;
    EXPECT_EQ(table.find(1), nullptr);
    for (uint32_t id = 1; id <= 4; ++id) EXPECT_TRUE(table.add(id, static_cast<int>(id * 10)));
    EXPECT_FALSE(table.add(5, 50)) << "a fifth entry in a table of four";
    EXPECT_EQ(table.find(5), nullptr);

    // Erasing from the middle moves the last entry into the gap: every other id still answers.
    EXPECT_TRUE(table.erase(2));
    EXPECT_FALSE(table.erase(2)) << "erased twice";
    EXPECT_EQ(table.find(2), nullptr);
    for (uint32_t id : {1u, 3u, 4u}) {
        ASSERT_NE(table.find(id), nullptr) << id;
        EXPECT_EQ(*table.find(id), static_cast<int>(id * 10));
    }
    EXPECT_EQ(table.size(), 3u);
    EXPECT_TRUE(table.erase(4));  // the last one
    EXPECT_TRUE(table.add(6, 60));
    EXPECT_EQ(*table.find(6), 60);
    EXPECT_FALSE(table.erase(0)) << "0 is never an id, even in an emptied slot";
}

TEST(IdTable, ABlockIsUnmappedWhenItsEntryIsErasedAndTheOthersStayMapped) {
    uint8_t *first = nullptr, *middle = nullptr, *last = nullptr;
    {
        IdTable<SharedBlock, 8> blocks;
        ASSERT_TRUE(blocks.add(1, anonymousBlock(first)));
        ASSERT_TRUE(blocks.add(2, anonymousBlock(middle)));
        ASSERT_TRUE(blocks.add(3, anonymousBlock(last)));
        ASSERT_TRUE(mapped(first) && mapped(middle) && mapped(last));

        ASSERT_TRUE(blocks.erase(2));
        EXPECT_FALSE(mapped(middle)) << "the erased block is still mapped";
        EXPECT_TRUE(mapped(last)) << "moving the last block into the gap unmapped it";
        ASSERT_NE(blocks.find(3), nullptr);
        EXPECT_EQ(blocks.find(3)->data(), last);
        blocks.find(3)->data()[0] = 7;  // still usable through its new slot
    }
    EXPECT_FALSE(mapped(first) || mapped(last)) << "the table's end left a block mapped";
}

}  // namespace
