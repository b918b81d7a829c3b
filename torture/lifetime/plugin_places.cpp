// Where a plug-in's life may take a turn, and which turns.
#include "plugin_world.h"

namespace tarv::torture {

const std::vector<Place> PluginWorld::kPlaces = {
    {"OnConnected"},
    {"a failed OnConnected"},
    {"OnDisconnected"},
    {"OnNotify"},
    {"a response"},
    {"a failed response"},
    {"OnManagerEnded of its own"},
    {"OnManagerEnded of another"},
    {"the server's OnConnected"},
    {"the server's OnNotify"},
    {"OnRequest"},
    {"a URI's callback"},
    {"the end of OnConnected", false},
    {"the end of OnDisconnected", false},
    {"the end of OnNotify", false},
    {"the end of OnManagerEnded", false},
    {"the end of a callback", false},
    {"the end of the server's OnConnected", false},
    {"the end of the server's OnNotify", false},
    {"the end of OnRequest", false},
    {"the end of a URI's callback", false},
};

const std::vector<Deed<PluginWorld>> PluginWorld::kDeeds = {
    {"drop the clients", [](PluginWorld& world) { world.DropClients(); }},
    {"drop the first manager", [](PluginWorld& world) { world.DropFirstManager(); }},
    {"drop the managers", [](PluginWorld& world) { world.DropManagers(); }},
    {"drop the server", [](PluginWorld& world) { world.DropServer(); }},
    {"drop the opener of URIs", [](PluginWorld& world) { world.DropIntents(); }},
    {"drop all",
     [](PluginWorld& world) {
       world.DropClients();
       world.DropServer();
       world.DropIntents();
       world.DropManagers();
     }},
    {"drop the managers, then the rest, and use everything",
     [](PluginWorld& world) {
       world.DropManagers();
       world.UseEverything();
       world.DropClients();
       world.DropServer();
       world.DropIntents();
     }},
    {"drop the clients and let their tasks stop",
     [](PluginWorld& world) {
       world.DropClients();
       world.CompleteStops();
     }},
    {"lose the tasks", [](PluginWorld& world) { world.LoseTasks(); }},
    {"lose the tasks and drop the clients",
     [](PluginWorld& world) {
       world.LoseTasks();
       world.DropClients();
     }},
    {"use everything", [](PluginWorld& world) { world.UseEverything(); }},
    {"use handles of nothing", [](PluginWorld&) { PluginWorld::UseForeignHandles(); }},
    {"let more arrive", [](PluginWorld& world) { world.ArriveEverywhere(); }},
    {"drop the server and let more arrive",
     [](PluginWorld& world) {
       world.DropServer();
       world.ArriveEverywhere();
     }},
    {"run a nested loop", [](PluginWorld& world) { world.RunNestedLoop(); }},
    {"drop the clients and run a nested loop",
     [](PluginWorld& world) {
       world.DropClients();
       world.RunNestedLoop();
     }},
    {"drop the managers and run a nested loop",
     [](PluginWorld& world) {
       world.DropManagers();
       world.RunNestedLoop();
     }},
    {"make all anew", [](PluginWorld& world) { world.MakeAnew(); }},
    {"throw", &Throw<PluginWorld>, true},
};

const std::vector<Deed<PluginWorld>> PluginWorld::kEnds = {
    {"clients", [](PluginWorld& world) { world.DropClients(); }},
    {"first manager", [](PluginWorld& world) { world.DropFirstManager(); }},
    {"losses", [](PluginWorld& world) { world.LoseTasks(); }},
    {"server", [](PluginWorld& world) { world.DropServer(); }},
};

}  // namespace tarv::torture
