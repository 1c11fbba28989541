// Ranks that are processes, on one machine or on many.
#pragma once

#include "pipeline/scene/raytransport.h"

namespace pipeline::mpi {

/// Reaches the other processes through MPI, which is initialised and not finalised as long as it
/// lives. Used by the thread that initialised it.
class MpiRanks final : public RayTransport {
  public:
    MpiRanks();
    int rank() const override { return mine; }
    int ranks() const override { return count; }
    std::vector<Parcel> exchange(std::vector<Parcel>& parcels) override;
    Sums sum(Sums const& addend) override;
    std::vector<std::vector<char>> gather(std::vector<char> part) override;

    /// How many of the ranks run on this machine.
    int ranksHere() const;
    /// The least and the greatest of what the ranks say.
    int least(int said) const;
    int greatest(int said) const;

  protected:
    void foldAll(Fold how, std::span<std::int64_t> numbers) override;
    void addUpAllBefore(std::span<std::int64_t> numbers) override;
    std::vector<Bytes> swapAll(std::vector<Bytes> parts) override;

  private:
    int mine = 0;
    int count = 1;
};

} // namespace pipeline::mpi
