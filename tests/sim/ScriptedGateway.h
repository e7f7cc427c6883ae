// The manager's way out in the simulation: a gateway without a request pool
// whose Fetch answers at once, with a ready future, what the scripted
// server answers at the true time of the request, and whose logger daemon
// always takes the notice. One per manager instance, as the daemon's
// manager owns its gateway; what the server saw goes to the seed's ledger.
#ifndef BRVO_TESTS_SIM_SCRIPTEDGATEWAY_H
#define BRVO_TESTS_SIM_SCRIPTEDGATEWAY_H

#include "schedule/ExchangeGateway.h"
#include "sim/ExchangeLedger.h"

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>

namespace brvo {
namespace sim {

class SeededDraw;
class ServerScript;

class ScriptedGateway : public ExchangeGateway {
public:
    // What the gateway reads of the simulation at each request: the true
    // time (epoch seconds) and the plant ID in the system settings.
    struct World {
        std::function<std::int64_t()> trueNow;
        std::function<std::string()> configuredPlant;
        // Told of each request and its answer (may be empty).
        std::function<void(const std::string&)> trace;
    };

    // Answers from `script`, drawing which requests of a partial spell
    // fail from `draw`; all of them outlive the gateway.
    ScriptedGateway(const ServerScript& script, SeededDraw& draw, ExchangeLedger& ledger, const World& world);
    ~ScriptedGateway() override;

    // The server's answer to `scheduleKbn` for the configured plant (or
    // `plantId` when `explicitTarget`), ready at once.
    std::future<std::shared_ptr<ServerAccessResult>> Fetch(const std::string& scheduleKbn, bool explicitTarget,
                                                           const std::string& plantId, const std::string& url) override;
    // The logger daemon takes the notice: 0.
    int SendScheduleData() override;
    // Every later request fails at once, as after the real gateway's abort.
    void Abort() override;

private:
    std::shared_ptr<ServerAccessResult> Answer(ExchangeLedger::Kind kind, const std::string& kbn,
                                               const std::string& plantId);
    std::shared_ptr<ServerAccessResult> RightAnswer(ExchangeLedger::Kind kind, const std::string& kbn, int plant,
                                                    std::int64_t now);
    void Trace(const std::string& kbn, const ServerAccessResult& answer) const;
    std::shared_ptr<ServerAccessResult> FaultAnswer(ExchangeLedger::Kind kind, const std::string& kbn, int plant,
                                                    std::int64_t now);

    const ServerScript& script_;
    SeededDraw& draw_;
    ExchangeLedger& ledger_;
    World world_;
    bool aborted_;
};

} // namespace sim
} // namespace brvo

#endif
