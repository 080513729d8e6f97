// refused: writing variable 'value_' requires holding mutex 'lock_' exclusively
#include "quorvane_lib/mutex.h"

class Value {
  public:
    void set(int value) {
        const qv::SharedGuard guard(lock_);
        value_ = value;
    }

  private:
    qv::SharedMutex lock_;
    int value_ QV_GUARDED_BY(lock_) = 0;
};

void use(Value& value) {
    value.set(1);
}
