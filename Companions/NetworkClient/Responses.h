// The responses of one channel that wait to be read: one for each thread, kept by the thread
// itself, so that nothing is left of a thread that ended. Owned by the channel; any thread may call
// it, and each sees its own response only.
#ifndef QUORVALEN_COMPANIONS_NETWORKCLIENT_RESPONSES_H
#define QUORVALEN_COMPANIONS_NETWORKCLIENT_RESPONSES_H

#include <memory>
#include <vector>

namespace Quorvalen::Companions::Network {

class Responses {
  public:
    // Forgets the thread's response; gives the storage for the next one, which stays the thread's.
    // Valid until the thread's next call.
    std::vector<unsigned char>& Begin();

    // What was put into the storage is the thread's response now.
    void Keep();

    // The thread's response, null when there is none.
    const std::vector<unsigned char>* Find();

    void Forget();

  private:
    // The storage of a response, kept by a thread for one channel.
    struct Slot {
        // Tells the channels apart, and those that are gone.
        std::weak_ptr<const Responses*> owner;
        std::vector<unsigned char> bytes;
        bool present = false;
    };

    Slot& ThreadsSlot();
    Slot* FindSlot() const;

    static thread_local std::vector<Slot> slots;

    const std::shared_ptr<const Responses*> identity = std::make_shared<const Responses*>(this);
};

}  // namespace Quorvalen::Companions::Network

#endif
