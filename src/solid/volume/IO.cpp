#include "solid/volume/IO.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "common/Assert.h"
#include "common/RWLock.h"

namespace Solid {

namespace {

// Separators of the text parts.
constexpr char kLineFeed = '\n';
constexpr char kSpace = ' ';

bool sameBits(float a, float b) {
    uint32_t bitsA = 0;
    uint32_t bitsB = 0;
    std::memcpy(&bitsA, &a, sizeof(a));
    std::memcpy(&bitsB, &b, sizeof(b));
    return bitsA == bitsB;
}

template <typename V>
void writeTriple(std::ostream& os, const V& v) {
    os << v(0) << kSpace << v(1) << kSpace << v(2) << kLineFeed;
}

// Every number of the text parts is followed by SP or LF. A number that runs into the end of the
// stream may have been cut ("0.16" to "0.1", "16" to "1"), so it counts as a failed read, not as
// a value that could be mistaken for a shape, a spacing or a key.
void failAtEnd(std::istream& is) {
    if (is.eof()) {
        is.setstate(std::ios::failbit);
    }
}

template <typename N>
bool readNumber(std::istream& is, N& n) {
    is >> n;
    failAtEnd(is);
    return !is.fail();
}

template <typename V>
bool readTriple(std::istream& is, V& v) {
    is >> v(0) >> v(1) >> v(2);
    failAtEnd(is);
    return !is.fail();
}

// Every bit pattern of a depth sample is safe for the kernels and readers: a weight below 1 reads
// as unobserved, and the fusion kernels bound their arithmetic for any stored value and weight.
void repairSample(Vec2S& /*sample*/) {}

// A histogram length is a count the border copy and the label vote index by, so a garbled one
// is set back to the length every created sample has. The counters themselves are raw votes,
// and any byte is a valid vote count.
template <typename LabelSample>
void repairSample(LabelSample& sample) {
    if (sample.labels.size() != kNumLabels) {
        sample.labels.resize(kNumLabels);
    }
}

bool isUsableBlockSize(const Size& size) {
    for (int a = 0; a < 3; ++a) {
        if (size(a) < 1 || size(a) > kMaxStreamBlockLatticePoints) {
            return false;
        }
    }
    return true;
}

bool isUsableSpacing(const Vec3& spacing) {
    for (int a = 0; a < 3; ++a) {
        if (!(std::isfinite(spacing(a)) && spacing(a) > 0.0f)) {
            return false;
        }
    }
    return true;
}

}  // namespace

template <typename T, typename StoragePolicy>
std::ostream& operator<<(std::ostream& os, const Volume<T, StoragePolicy>& volume) {
    os.precision(kStreamFloatPrecision);
    writeTriple(os, volume.size());
    writeTriple(os, volume.dimension());
    os.write(
        reinterpret_cast<const char*>(volume.data()),
        static_cast<std::streamsize>(volume.dataSize()) * static_cast<std::streamsize>(sizeof(T)));
    os.put(kLineFeed);
    return os;
}

template <typename T, typename StoragePolicy>
std::istream& operator>>(std::istream& is, Volume<T, StoragePolicy>& volume) {
    Size size;
    if (!readTriple(is, size)) {
        return is;
    }
    Vec3 dimension;
    if (!readTriple(is, dimension)) {
        return is;
    }
    // Samples land in the storage of a grid block; a volume without one has nowhere to put them.
    AR_ASSERT(volume.mStorage.cfg_ != nullptr && volume.data() != nullptr &&
              "a volume is read only into a block of a configured grid");
    const VolumeConfig& config = volume.config();
    bool shapeMatches = true;
    for (int a = 0; a < 3; ++a) {
        shapeMatches = shapeMatches && size(a) == config.size(a) &&
                       sameBits(dimension(a), config.dimension(a));
    }
    AR_ASSERT(shapeMatches && "block size or dimension in the file differs from the grid's");

    const int separator = is.get();  // unformatted: white space is not skipped
    if (!is) {
        return is;
    }
    if (separator != kLineFeed) {
        is.setstate(std::ios::failbit);
        return is;
    }
    const int64_t sampleCount = int64_t{size(0)} * size(1) * size(2);
    AR_ASSERT(sampleCount == int64_t{volume.dataSize()} &&
              "sample count of the block differs from its size");

    T* samples = volume.data();
    const std::streamsize bytes = static_cast<std::streamsize>(sampleCount * int64_t{sizeof(T)});
    is.read(reinterpret_cast<char*>(samples), bytes);
    // A cut inside the samples: the whole samples read stay; a sample read in part and those
    // after it get creation values (unobserved) rather than a mix of bytes of two records.
    const int64_t complete = static_cast<int64_t>(is.gcount()) / int64_t{sizeof(T)};
    const T fill = creationSample<T>();
    for (int64_t i = complete; i < sampleCount; ++i) {
        samples[i] = fill;
    }
    for (int64_t i = 0; i < complete; ++i) {
        repairSample(samples[i]);
    }
    return is;
}

template <typename B, template <typename> class P, typename L>
std::ostream& operator<<(std::ostream& os, const VolumeGrid<B, P, L>& grid) {
    os.precision(kStreamFloatPrecision);
    os << VOLUMEGRID_BINARY_VER << kLineFeed;
    writeTriple(os, grid.config().size);
    writeTriple(os, grid.gridSpacing());
    AR::Common::ReadLockGuard<L> guard(grid.lock());
    os << static_cast<uint64_t>(grid.sizeUnlocked()) << kLineFeed;
    grid.for_eachUnlocked([&os](const KeyType& key, const B& block) {
        writeTriple(os, key);
        os << block;
    });
    os.put(kLineFeed);
    return os;
}

template <typename B, template <typename> class P, typename L>
std::istream& operator>>(std::istream& is, VolumeGrid<B, P, L>& grid) {
    unsigned int version = 0;
    if (!readNumber(is, version)) {
        return is;
    }
    if (version != VOLUMEGRID_BINARY_VER) {
        is.setstate(std::ios::failbit);
    }
    AR_ASSERT(version == VOLUMEGRID_BINARY_VER && "unsupported volume file version");

    Size size;
    if (!readTriple(is, size)) {
        return is;
    }
    const bool configured = grid.config().numSamples != 0;
    if (configured) {
        // The blocks already in the grid, and the kernels, are laid out for this size.
        const Size& current = grid.config().size;
        AR_ASSERT(size(0) == current(0) && size(1) == current(1) && size(2) == current(2) &&
                  "block size in the file differs from the grid's");
    } else if (!isUsableBlockSize(size)) {
        is.setstate(std::ios::failbit);
        return is;
    }
    Vec3 spacing;
    if (!readTriple(is, spacing)) {
        return is;
    }
    if (!isUsableSpacing(spacing)) {
        is.setstate(std::ios::failbit);
        return is;
    }
    grid.set(size, spacing);

    // Only a bound for the loop: a stream that ends early fails the next read, so a count far
    // beyond what the stream holds costs nothing, and no memory is reserved for it.
    uint64_t count = 0;
    if (!readNumber(is, count)) {
        return is;
    }
    AR::Common::WriteLockGuard<L> guard(grid.lock());
    for (uint64_t i = 0; i < count; ++i) {
        KeyType key;
        if (!readTriple(is, key)) {
            break;
        }
        grid.ensureUnlocked(key);
        auto block = grid.getUnlocked(key);
        is >> *block;
        if (!is) {
            break;
        }
    }
    return is;
}

#define VELMORA_INSTANTIATE_IO(G)                                      \
    template std::ostream& operator<<(std::ostream&, const G::Block&); \
    template std::istream& operator>>(std::istream&, G::Block&);       \
    template std::ostream& operator<<(std::ostream&, const G&);        \
    template std::istream& operator>>(std::istream&, G&);

VELMORA_INSTANTIATE_IO(DepthGrid)
VELMORA_INSTANTIATE_IO(LabelDepthGrid)
VELMORA_INSTANTIATE_IO(LabelGrid)

}  // namespace Solid
