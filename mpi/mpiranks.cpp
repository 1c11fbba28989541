// Sends parcels without packing them: sizes first, then each list as it lies in memory.
#include "mpi/mpiranks.h"

#include <mpi.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

namespace pipeline::mpi {

namespace {

static_assert(sizeof(std::uint64_t) == sizeof(unsigned long long)); // as MPI calls it
constexpr std::size_t mostBytes = std::size_t{1} << 30; // of one message: MPI counts in int
constexpr int listCount = 4;
enum Tag { parcelTag = 1, gatherTag = parcelTag + listCount, swapTag };

/// Memory for what others are sending already: without it they would wait for ever.
template <class List> void makeRoom(List& list, std::size_t size) {
    try {
        list.resize(size);
    } catch (std::exception const&) {
        std::fputs("kelpa-mpi: out of memory; more machines need less of each\n", stderr);
        MPI_Abort(MPI_COMM_WORLD, 1);
    }
}

/// Messages on their way.
class Messages {
  public:
    void send(void const* bytes, std::size_t size, int to, int tag) {
        forEachPart(size, [&](std::size_t first, int part) {
            MPI_Isend(static_cast<char const*>(bytes) + first, part, MPI_BYTE, to, tag,
                      MPI_COMM_WORLD, &requests.emplace_back());
        });
    }
    void receive(void* bytes, std::size_t size, int from, int tag) {
        forEachPart(size, [&](std::size_t first, int part) {
            MPI_Irecv(static_cast<char*>(bytes) + first, part, MPI_BYTE, from, tag, MPI_COMM_WORLD,
                      &requests.emplace_back());
        });
    }
    void finish() {
        MPI_Waitall(static_cast<int>(requests.size()), requests.data(), MPI_STATUSES_IGNORE);
    }

  private:
    template <class Take> static void forEachPart(std::size_t size, Take const& take) {
        for (std::size_t first = 0; first < size; first += mostBytes)
            take(first, static_cast<int>(std::min(mostBytes, size - first)));
    }
    std::vector<MPI_Request> requests;
};

/// Calls `visit` with each of a parcel's lists and its number.
template <class AnyParcel, class Visit> void forEachList(AnyParcel& parcel, Visit const& visit) {
    visit(parcel.rays, 0);
    visit(parcel.hits, 1);
    visit(parcel.distances, 2);
    visit(parcel.occluded, 3);
}

/// Calls `visit` with pieces of many numbers: MPI counts in int.
template <class Visit> void forEachPiece(std::span<std::int64_t> numbers, Visit const& visit) {
    for (std::size_t first = 0; first < numbers.size(); first += mostBytes)
        visit(numbers.data() + first,
              static_cast<int>(std::min(mostBytes, numbers.size() - first)));
}

} // namespace

MpiRanks::MpiRanks() {
    MPI_Comm_rank(MPI_COMM_WORLD, &mine);
    MPI_Comm_size(MPI_COMM_WORLD, &count);
}

std::vector<Parcel> MpiRanks::exchange(std::vector<Parcel>& parcels) {
    using Sizes = std::array<std::uint64_t, listCount>;
    std::vector<Sizes> outgoing(parcels.size());
    std::vector<Sizes> incoming(parcels.size());
    for (std::size_t rank = 0; rank < parcels.size(); ++rank)
        forEachList(parcels[rank], [&](auto const& list, std::size_t number) {
            outgoing[rank][number] = list.size();
        });
    MPI_Alltoall(outgoing.data(), listCount, MPI_UNSIGNED_LONG_LONG, incoming.data(), listCount,
                 MPI_UNSIGNED_LONG_LONG, MPI_COMM_WORLD);
    std::vector<Parcel> arrived(parcels.size());
    Messages messages;
    for (std::size_t rank = 0; rank < parcels.size(); ++rank)
        forEachList(arrived[rank], [&](auto& list, std::size_t number) {
            makeRoom(list, incoming[rank][number]);
            messages.receive(list.data(), list.size() * sizeof list[0], static_cast<int>(rank),
                             parcelTag + static_cast<int>(number));
        });
    for (std::size_t rank = 0; rank < parcels.size(); ++rank)
        forEachList(parcels[rank], [&](auto const& list, std::size_t number) {
            messages.send(list.data(), list.size() * sizeof list[0], static_cast<int>(rank),
                          parcelTag + static_cast<int>(number));
        });
    messages.finish();
    for (Parcel& parcel : parcels)
        forEachList(parcel, [](auto& list, std::size_t) { list.clear(); });
    return arrived;
}

RayTransport::Sums MpiRanks::sum(Sums const& addend) {
    std::array<long long, 2> const said{addend.count, addend.failed};
    std::array<long long, 2> all{};
    MPI_Allreduce(said.data(), all.data(), 2, MPI_LONG_LONG, MPI_SUM, MPI_COMM_WORLD);
    return {all[0], all[1]};
}

std::vector<std::vector<char>> MpiRanks::gather(std::vector<char> part) {
    std::uint64_t const size = part.size();
    std::vector<std::uint64_t> sizes(mine == 0 ? static_cast<std::size_t>(count) : 0);
    MPI_Gather(&size, 1, MPI_UNSIGNED_LONG_LONG, sizes.data(), 1, MPI_UNSIGNED_LONG_LONG, 0,
               MPI_COMM_WORLD);
    std::vector<std::vector<char>> parts(sizes.size());
    Messages messages;
    for (std::size_t rank = 1; rank < parts.size(); ++rank) {
        makeRoom(parts[rank], sizes[rank]);
        messages.receive(parts[rank].data(), sizes[rank], static_cast<int>(rank), gatherTag);
    }
    if (mine != 0)
        messages.send(part.data(), part.size(), 0, gatherTag);
    messages.finish();
    if (mine == 0)
        parts[0] = std::move(part);
    return parts;
}

void MpiRanks::foldAll(Fold how, std::span<std::int64_t> numbers) {
    forEachPiece(numbers, [how](std::int64_t* first, int many) {
        MPI_Allreduce(MPI_IN_PLACE, first, many, MPI_INT64_T, how == Fold::sum ? MPI_SUM : MPI_MAX,
                      MPI_COMM_WORLD);
    });
}

void MpiRanks::addUpAllBefore(std::span<std::int64_t> numbers) {
    forEachPiece(numbers, [](std::int64_t* first, int many) {
        MPI_Exscan(MPI_IN_PLACE, first, many, MPI_INT64_T, MPI_SUM, MPI_COMM_WORLD);
    });
    if (mine == 0) // of whom nothing is defined
        std::fill(numbers.begin(), numbers.end(), 0);
}

std::vector<RayTransport::Bytes> MpiRanks::swapAll(std::vector<Bytes> parts) {
    std::vector<std::uint64_t> outgoing(parts.size());
    std::vector<std::uint64_t> incoming(parts.size());
    std::transform(parts.begin(), parts.end(), outgoing.begin(),
                   [](Bytes const& part) { return part.size(); });
    MPI_Alltoall(outgoing.data(), 1, MPI_UINT64_T, incoming.data(), 1, MPI_UINT64_T,
                 MPI_COMM_WORLD);
    std::vector<Bytes> arrived(parts.size());
    Messages messages;
    for (std::size_t rank = 0; rank < parts.size(); ++rank) {
        makeRoom(arrived[rank], incoming[rank]);
        messages.receive(arrived[rank].data(), arrived[rank].size(), static_cast<int>(rank),
                         swapTag);
    }
    for (std::size_t rank = 0; rank < parts.size(); ++rank)
        messages.send(parts[rank].data(), parts[rank].size(), static_cast<int>(rank), swapTag);
    messages.finish();
    return arrived;
}

int MpiRanks::ranksHere() const {
    MPI_Comm here = MPI_COMM_NULL;
    MPI_Comm_split_type(MPI_COMM_WORLD, MPI_COMM_TYPE_SHARED, mine, MPI_INFO_NULL, &here);
    int size = 1;
    MPI_Comm_size(here, &size);
    MPI_Comm_free(&here);
    return size;
}

int MpiRanks::least(int said) const {
    int result = said;
    MPI_Allreduce(&said, &result, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
    return result;
}

int MpiRanks::greatest(int said) const {
    int result = said;
    MPI_Allreduce(&said, &result, 1, MPI_INT, MPI_MAX, MPI_COMM_WORLD);
    return result;
}

} // namespace pipeline::mpi
