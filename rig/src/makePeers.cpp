#include "cameras/light.hpp"
#include "judge/aoLoop.hpp"
#include "judge/aoStreamsLoop.hpp"
#include "judge/cameraAccount.hpp"
#include "judge/fieldLoop.hpp"
#include "judge/gpaoLoop.hpp"
#include "judge/telescopeLoop.hpp"
#include "run.hpp"

#include <vosk/defs/sizes.hpp>

#include <utility>

namespace vosk::rig {
namespace {

// Starts the time of the light, and so stands first among the peers.
class LightStarter final : public Peer {
public:
    explicit LightStarter(std::shared_ptr<Optics> optics) : m_optics(std::move(optics)) {}

    void AddTo(HostDocument&) const override {}
    void Start(time_point first) override { m_optics->Start(first); }
    void Stop() override {}
    PeerAccount Account(const RunFacts&) const override { return {}; }

private:
    const std::shared_ptr<Optics> m_optics;
};

}  // namespace

std::vector<std::unique_ptr<Peer>> MakePeers(const Scenario& scenario, const LoopCalibration& calibration,
                                             const ModeTimeline& modes, Ports ports,
                                             const std::filesystem::path& files) {
    std::vector<std::unique_ptr<Peer>> peers;
    std::shared_ptr<const LightSource> light;
    if (!scenario.cameras.empty())
        light =
            std::make_shared<Light>(scenario.light, scenario.seed, defs::GPAO_CMD_SIZE, scenario.duration);
    std::shared_ptr<Optics> optics;
    if (scenario.telescope) {
        optics = std::make_shared<Optics>(scenario, light);
        light = optics;
        peers.push_back(std::make_unique<LightStarter>(optics));
    }
    const CameraPeer* wfs = nullptr;  // whose coefficients GPAO gets
    for (auto& camera : MakeCameras(scenario, light, files, ports)) {
        if (scenario.gpao && camera->Scene().Settings().camera == scenario.Wfs()->camera) wfs = camera.get();
        auto judge = std::make_unique<CameraJudge>(scenario, *camera);
        peers.push_back(std::move(camera));
        peers.push_back(std::move(judge));
    }
    const Flowgraph* gpao = wfs != nullptr ? AddGpaoPeers(scenario, *wfs, files, peers) : nullptr;
    const FieldLoop* field = scenario.streams ? AddFieldPeers(scenario, optics.get(), ports, peers) : nullptr;
    if (!scenario.ao_loop) return peers;
    auto instruments_loop = optics ? std::make_shared<InstrumentLoop>(scenario, optics) : nullptr;
    auto instrument = std::make_unique<Instrument>(scenario, ports, instruments_loop.get());
    auto m4 = std::make_unique<M4Peer>(scenario, ports, optics ? optics->M4() : nullptr);
    std::unique_ptr<Peer> judge;
    // A scenario with a telescope has both flowgraphs.
    if (optics && field != nullptr && gpao != nullptr)
        judge =
            std::make_unique<TelescopeLoop>(scenario, calibration, modes,
                                            TelescopeLoop::Parts{optics, instruments_loop, *instrument, *m4,
                                                                 field->GetPeers().flowgraph, *gpao});
    else
        judge = std::make_unique<AoLoop>(scenario, calibration, modes, *instrument, *m4);
    std::unique_ptr<AoStreamsPeer> listener;
    std::unique_ptr<AoStreamsLoop> listeners_judge;
    if (scenario.ao_streams) {
        listener = std::make_unique<AoStreamsPeer>(scenario, ports);
        listeners_judge = std::make_unique<AoStreamsLoop>(
            scenario, AoStreamsLoop::Peers{*listener, *instrument, *m4, field});
    }
    peers.push_back(std::move(instrument));
    peers.push_back(std::move(m4));
    peers.push_back(std::move(judge));
    if (!listener) return peers;
    peers.push_back(std::move(listener));
    peers.push_back(std::move(listeners_judge));
    return peers;
}

std::string MakeHostDocument(const Scenario& scenario, const std::vector<std::unique_ptr<Peer>>& peers) {
    HostDocument document(scenario);
    for (const auto& peer : peers) peer->AddTo(document);
    return document.Text();
}

}  // namespace vosk::rig
