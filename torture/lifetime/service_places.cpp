// Where a life of the C interface may take a turn, and which turns.
#include "service_world.h"

namespace tarv::torture {

const std::vector<Place> ServiceWorld::kPlaces = {
    {place::kClientStarted},     {place::kClientNotStarted}, {place::kClientMessage},
    {place::kClientDisconnect},  {place::kClientRelease},    {place::kServerStarted},
    {place::kServerMessage},     {place::kServerRelease},    {place::kUri},
    {place::kUriRelease, false}, {place::kIntent},
};

const std::vector<Deed<ServiceWorld>> ServiceWorld::kDeeds = {
    {"release the clients", [](ServiceWorld& world) { world.ReleaseClients(); }},
    {"release the clients twice",
     [](ServiceWorld& world) {
       world.ReleaseClients();
       world.ReleaseClients();
     }},
    {"release the manager", [](ServiceWorld& world) { world.ReleaseManager(); }},
    {"release the manager twice",
     [](ServiceWorld& world) {
       world.ReleaseManager();
       world.ReleaseManager();
     }},
    {"release the clients, then the manager",
     [](ServiceWorld& world) {
       world.ReleaseClients();
       world.ReleaseManager();
     }},
    {"release the clients and let their tasks stop",
     [](ServiceWorld& world) {
       world.ReleaseClients();
       world.CompleteStops();
     }},
    {"release all and use all",
     [](ServiceWorld& world) {
       world.ReleaseClients();
       world.ReleaseManager();
       world.UseEverything();
     }},
    {"lose the tasks", [](ServiceWorld& world) { world.LoseClients(); }},
    {"use everything", [](ServiceWorld& world) { world.UseEverything(); }},
    {"use handles of other types", [](ServiceWorld& world) { world.UseForeignHandles(); }},
    {"run a nested loop", [](ServiceWorld& world) { world.RunNestedLoop(); }},
    {"release the clients and run a nested loop",
     [](ServiceWorld& world) {
       world.ReleaseClients();
       world.RunNestedLoop();
     }},
    {"release the manager and run a nested loop",
     [](ServiceWorld& world) {
       world.ReleaseManager();
       world.RunNestedLoop();
     }},
    {"let more arrive", [](ServiceWorld& world) { world.ArriveEverywhere(); }},
    {"make all anew", [](ServiceWorld& world) { world.MakeAnew(); }},
    {"release the manager and make all anew",
     [](ServiceWorld& world) {
       world.ReleaseManager();
       world.MakeAnew();
     }},
    {"throw", &Throw<ServiceWorld>, true},
};

const std::vector<Deed<ServiceWorld>> ServiceWorld::kEnds = {
    {"clients", [](ServiceWorld& world) { world.ReleaseClients(); }},
    {"losses", [](ServiceWorld& world) { world.LoseClients(); }},
    {"manager", [](ServiceWorld& world) { world.ReleaseManager(); }},
    {"stops", [](ServiceWorld& world) { world.CompleteStops(); }},
};

}  // namespace tarv::torture
