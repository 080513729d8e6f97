// refused: 'wait' requires holding mutex 'lock_'
#include "quorvane_lib/mutex.h"

class Gate {
  public:
    void pass() { opened_.wait(lock_); }

  private:
    qv::Mutex lock_;
    qv::Condition opened_;
};

void use(Gate& gate) {
    gate.pass();
}
