// Changes a block file without end until it is killed: makes, rewrites and
// frees blocks, each written whole with its own full id repeated, so that
// after a kill the test can tell every block's contents from its place.
//   blockswriter FILE SEED
// Prints "running" once the file is open. Exit codes: 1 usage, 2 open, 3 a
// call failed.
#include "core/byteorder.h"
#include "persistent/blocks.h"

#include <QString>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

using namespace Brevi;

namespace {
void fill(void* block, unsigned size, quint64 id)
{
    unsigned char* at = static_cast<unsigned char*>(block);
    for (unsigned offset = 0; offset + 8 <= size; offset += 8)
        ByteOrder::store64(at + offset, id);
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 1;
    Blocks blocks(8);
    if (!blocks.open(QString::fromLocal8Bit(argv[1]), 16 * 64, RawFile::eReadWrite))
        return 2;
    std::mt19937_64 random(std::strtoull(argv[2], nullptr, 10));
    std::vector<quint64> held;
    std::printf("running\n");
    std::fflush(stdout);
    for (;;) {
        const unsigned op = unsigned(random() % 10);
        if (held.empty() || (op < 5 && held.size() < 3000)) {
            quint64 id = 0;
            void* block = blocks.newBlock(id);
            if (!block || id == 0)
                return 3;
            fill(block, blocks.blockSize(), id);
            if (!blocks.returnBlock(block, true))
                return 3;
            held.push_back(id);
        } else {
            const size_t index = size_t(random() % held.size());
            const quint64 id = held[index];
            void* block = blocks.getBlock(id);
            if (!block)
                return 3;
            if (op < 8 || held.size() >= 3000) {
                if (!blocks.freeBlock(block))
                    return 3;
                held[index] = held.back();
                held.pop_back();
            } else {
                fill(block, blocks.blockSize(), id);
                if (!blocks.updateBlock(block) || !blocks.returnBlock(block, false))
                    return 3;
            }
        }
    }
}
