// One accepted connection of a local client, queued to the worker pool: one
// binary request in, one binary answer out, then the connection is closed.
// All integers are 32-bit in the device's byte order; text fields are
// fixed-size and NUL-padded.
#ifndef BRVO_SERVER_OUTSOCKETWORK_H
#define BRVO_SERVER_OUTSOCKETWORK_H

#include "server/Request.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace brvo {

class TargetPowerResult;
class UpdateResult;

class OutSocketWork : public Request {
public:
    // Request types.
    static constexpr std::int32_t kUpdateSchedule = 2;
    static constexpr std::int32_t kCheckPlantId = 3;
    static constexpr std::int32_t kUpdateFixedSchedule = 4;
    static constexpr std::int32_t kChangeSettingNotify = 5;
    static constexpr std::int32_t kCurrentTargetPower = 6;
    static constexpr std::int32_t kNextTargetPower = 7;
    static constexpr std::int32_t kFlushLog = 8;
    // Sizes of the request header, the parameter blocks and the answers.
    static constexpr std::size_t kHeaderSize = 8;
    static constexpr std::size_t kCheckPlantIdSize = 283;
    static constexpr std::size_t kPlantIdSize = 27;
    static constexpr std::size_t kPlantUrlSize = 256;
    static constexpr std::size_t kFixedScheduleSize = 257;
    static constexpr std::size_t kFilePathSize = 256;
    static constexpr std::size_t kCapacitySize = 8;
    static constexpr std::size_t kUpdateAnswerSize = 144;
    static constexpr std::size_t kFixedAnswerSize = 171;
    static constexpr std::size_t kTargetAnswerSize = 167;
    // Failure reason of a fixed-schedule request whose file is missing.
    static constexpr std::int32_t kFileNotFound = 9;

    // Takes over the accepted client descriptor `socket`.
    explicit OutSocketWork(int socket);

    // Reads the request, runs it, answers and closes the connection; after
    // a successful update whose answer went out, forwards the new schedule
    // to the logger daemon. A request of unknown type gets no answer.
    void Execute() override;
    // Closes the client descriptor (once; later calls do nothing).
    void Close();
    // The client descriptor; -1 once closed.
    int GetSocket() const { return socket_; }

    // The answers, byte for byte.
    static std::vector<unsigned char> UpdateAnswer(std::int32_t type, const UpdateResult& result);
    static std::vector<unsigned char> FixedScheduleAnswer(const UpdateResult& result);
    static std::vector<unsigned char> TargetPowerAnswer(std::int32_t type, const TargetPowerResult& result);
    static std::vector<unsigned char> FlushAnswer();

protected:
    ~OutSocketWork() override;

private:
    std::vector<unsigned char> Dispatch(std::int32_t type, bool& sendAfter);
    std::vector<unsigned char> ServeCheckPlantId();
    std::vector<unsigned char> ServeFixedSchedule(bool& sendAfter);
    std::vector<unsigned char> ServeTargetPower(std::int32_t type);
    std::vector<unsigned char> ReadBlock(std::size_t size, std::size_t padding = 1);
    std::string Tag(const std::string& text) const;

    int socket_;
};

} // namespace brvo

#endif
