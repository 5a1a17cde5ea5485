#include "qel/KeyValueObserving.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qel {
namespace {

struct Record {
  int value = 0;
};

class Controller : public Object, public KeyValueObservable {
 public:
  static std::shared_ptr<Controller> create() {
    return std::shared_ptr<Controller>(new Controller);
  }
  void setRecord(std::shared_ptr<const Record> record) { record_.set(std::move(record)); }
  void setTitle(std::string title) { title_.set(std::move(title)); }

 private:
  Controller() : record_(*this, "record"), title_(*this, "title") {}
  ObservableProperty<std::shared_ptr<const Record>> record_;
  ObservableProperty<std::string> title_;
};

struct Call {
  std::string keyPath;
  const Object* object;
  bool hasNewValue;
  void* context;
};

class Observer : public KeyValueObserver {
 public:
  std::vector<Call> calls;
  std::vector<std::shared_ptr<const Record>> records;
  std::function<void()> onCall;

  void observeValueForKeyPath(const std::string& keyPath, const Object* object,
                              const KeyValueChange& change, void* context) override {
    calls.push_back({keyPath, object, change.newValue.has_value(), context});
    if (const auto* record = std::any_cast<std::shared_ptr<const Record>>(&change.newValue))
      records.push_back(*record);
    if (onCall) onCall();
  }
};

TEST(PlatformKeyValueObserving, EveryAssignmentIsToldBeforeTheSetterReturns) {
  auto controller = Controller::create();
  auto observer = std::make_shared<Observer>();
  int context = 0;
  controller->addObserver(observer, "record", KeyValueObservingOptions::New, &context);

  auto record = std::make_shared<const Record>(Record{7});
  controller->setRecord(record);
  ASSERT_EQ(observer->calls.size(), 1u);
  controller->setRecord(record);   // the same value again
  controller->setRecord(nullptr);  // nothing at all
  controller->setTitle("other key path");
  ASSERT_EQ(observer->calls.size(), 3u);
  EXPECT_EQ(observer->records, (std::vector<std::shared_ptr<const Record>>{record, record, nullptr}));
  EXPECT_EQ(observer->calls[0].keyPath, "record");
  EXPECT_EQ(observer->calls[0].object, controller.get());
  EXPECT_EQ(observer->calls[0].context, &context);
}

TEST(PlatformKeyValueObserving, NewValueOnlyWhenAskedFor) {
  auto controller = Controller::create();
  auto plain = std::make_shared<Observer>();
  controller->addObserver(plain, "title", KeyValueObservingOptions::None, nullptr);
  controller->setTitle("x");
  ASSERT_EQ(plain->calls.size(), 1u);
  EXPECT_FALSE(plain->calls[0].hasNewValue);
}

TEST(PlatformKeyValueObserving, ObserversAreHeldWeaklyAndRemovedByKeyPath) {
  auto controller = Controller::create();
  auto gone = std::make_shared<Observer>();
  auto both = std::make_shared<Observer>();
  controller->addObserver(gone, "title", KeyValueObservingOptions::None, nullptr);
  controller->addObserver(both, "title", KeyValueObservingOptions::None, nullptr);
  controller->addObserver(both, "record", KeyValueObservingOptions::None, nullptr);
  EXPECT_EQ(controller->observerCount("title"), 2u);
  gone.reset();
  EXPECT_EQ(controller->observerCount("title"), 1u);
  controller->setTitle("a");  // must not reach the dead observer

  controller->removeObserver(both.get(), "title");
  controller->setTitle("b");
  controller->setRecord(nullptr);
  ASSERT_EQ(both->calls.size(), 2u);
  EXPECT_EQ(both->calls[0].keyPath, "title");
  EXPECT_EQ(both->calls[1].keyPath, "record");
  EXPECT_EQ(controller->observerCount("title"), 0u);
}

TEST(PlatformKeyValueObserving, RemovalDuringANotificationIsSafe) {
  auto controller = Controller::create();
  auto first = std::make_shared<Observer>();
  auto second = std::make_shared<Observer>();
  controller->addObserver(first, "title", KeyValueObservingOptions::New, nullptr);
  controller->addObserver(second, "title", KeyValueObservingOptions::New, nullptr);
  first->onCall = [&] {
    controller->removeObserver(first.get(), "title");
    controller->removeObserver(second.get(), "title");
  };
  controller->setTitle("x");
  EXPECT_EQ(first->calls.size(), 1u);
  EXPECT_TRUE(second->calls.empty());
  EXPECT_EQ(controller->observerCount("title"), 0u);
}

}  // namespace
}  // namespace qel
