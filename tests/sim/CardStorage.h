// The card's database directory as the simulation sees it: a small tmpfs
// of its own mounted over the directory for each seed (the sim runs as
// root in a private mount namespace, see tests/support/run-in-sandbox),
// which it can fill up (a full card: the files stay readable, nothing more
// fits) or cover with a read-only view of itself (nothing can be created
// or grown), and mend again.
#ifndef BRVO_TESTS_SIM_CARDSTORAGE_H
#define BRVO_TESTS_SIM_CARDSTORAGE_H

#include <string>

namespace brvo {
namespace sim {

class CardStorage {
public:
    // The state of the card.
    enum class State { kUnmounted, kWritable, kFull, kReadOnly };

    // For the database directory `directory`.
    explicit CardStorage(const std::string& directory);
    // Unmounts what is still mounted.
    ~CardStorage();

    // Mounts a fresh, empty tmpfs over the directory. False (with the
    // reason in `error`) when that fails.
    bool Mount(std::string& error);
    // Unmounts it (and a read-only view over it).
    bool Unmount(std::string& error);
    // Fills it until no byte more fits.
    bool Fill(std::string& error);
    // Covers it with a read-only view of itself.
    bool MakeReadOnly(std::string& error);
    // Undoes Fill or MakeReadOnly.
    bool Mend(std::string& error);

    // The state now.
    State GetState() const { return state_; }
    // Whether nothing keeps the card from being written.
    bool Writable() const { return state_ == State::kWritable; }

private:
    CardStorage(const CardStorage&) = delete;
    CardStorage& operator=(const CardStorage&) = delete;

    std::string FillerPath() const;

    std::string directory_;
    State state_;
};

} // namespace sim
} // namespace brvo

#endif
