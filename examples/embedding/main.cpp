// A minimal host embedding the engine: it sets the platform seams, hands the engine a campaign
// document, delivers one app event, receives the display event the engine dispatches, and fills
// the message's placeholders from the user's custom info. Exits 0 when all of that happened.
#include <KLTContextEvaluator/KLTContextEvaluator.h>
#include <host/KLTController.h>
#include <host/KLTDisplayEvents.h>
#include <host/KLTUser.h>
#include <host/KLTUtilities.h>
#include <platform/KLTBundle.h>
#include <platform/KLTUserDefaults.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <string>

int main() {
  // 1. The seams, before the engine's first use: the counter store (an empty path keeps it in
  // memory; a device gives a file), the app's version, the device, the current user and session.
  KLTUserDefaults::setStandardUserDefaults(std::make_shared<KLTUserDefaults>(std::filesystem::path()));
  KLTBundle::setShortVersionString("2.4.1");
  KLTUtilities::setDeviceName("iPhone14,2");
  KLTUtilities::setFirstSession(false);
  auto user = std::make_shared<KLTUser>();
  user->setUserAttributes({{"country", "FR"}});
  user->setCustomInfo({{"first_name", "Camille"}});
  KLTController& controller = KLTController::sharedController();
  controller.setUser(user);
  controller.setSession(std::make_shared<KLTSession>());

  // 2. Display events reach the host through its dispatch handler, on the engine's queue.
  std::promise<std::shared_ptr<KLTDisplayEvent>> shown;
  auto dispatched = shown.get_future();
  controller.setDispatchHandler([&shown, once = std::make_shared<std::once_flag>()](std::shared_ptr<KLTDisplayEvent> e) {
    std::call_once(*once, [&] { shown.set_value(std::move(e)); });
  });

  // 3. The campaign document: an in-app message for French users, after one purchase.
  KLTContextEvaluator& engine = KLTContextEvaluator::sharedInstance();
  engine.parseConfiguration(KLTValue::parse(R"({"configs": [{
    "_id": "thanks", "enabled": true,
    "audience": {"ver": {"val": "2.0", "op": "GTE"},
                 "attributes": {"user": [{"name": "country", "value": ["FR"], "operator": "EQ"}], "session": []}},
    "validity": {"start_date": "2020-01-01T00:00:00Z", "end_date": "2099-12-31T23:59:59Z"},
    "conditions": [{"event_type": "app_event", "details": {"name": "purchase", "additional_info": {}},
                    "time_bounds": {"lower": 0, "upper": 4102444800000}, "count_config": {"count": 1, "operator": "GTE"},
                    "combine_operator": "AND", "trigger": {"event_type": "app_start", "details": {"additional_info": {}}}}],
    "meta": {"type": "IN_APP"}}]})"));
  engine.ceOpsSerialQueue()->waitUntilIdle();  // the parse has registered the campaign's listeners

  // 4. The app reports a purchase; the engine decides on its queue and dispatches.
  controller.deliverEvent(KLTEvent::make(kKLTEventCodeApp, "purchase"));
  if (dispatched.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
    std::fprintf(stderr, "embedding: no display event was dispatched\n");
    return 1;
  }
  const auto event = dispatched.get();
  const std::string id = klt::textForm(klt::valueForKey(event->info(), "id"));
  engine.updateCountForConfigWithIdentifier(id);  // the host showed it: the counters move

  // 5. The message text, filled from the user's custom info.
  const auto text = engine.replaceMacros("Thanks, [user_first_name(friend)]!");
  std::printf("%.*s %s: %s\n", static_cast<int>(event->className().size()), event->className().data(), id.c_str(),
              text ? text->c_str() : "(no text)");
  // Before leaving main: the count update runs on the engine's queue, and must not still be
  // running while the process tears down the host's objects.
  engine.ceOpsSerialQueue()->waitUntilIdle();
  return text ? 0 : 1;
}
