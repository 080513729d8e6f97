// refused: mutex 'mutex' is not held on every path through here
#include "quorvane_lib/mutex.h"

class Counter {
  public:
    bool add() {
        mutex.lock();
        if (++count > 10) {
            return false;
        }
        mutex.unlock();
        return true;
    }

  private:
    qv::Mutex mutex;
    int count QV_GUARDED_BY(mutex) = 0;
};

bool use(Counter& counter) {
    return counter.add();
}
