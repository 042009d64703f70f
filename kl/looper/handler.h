// File: kl/looper/handler.h
//
// kl::Handler, the addressable object of a service. A service registers Handlers with its
// Looper (kl/looper/looper.h) under numeric ids; a message whose SYS_TO path ends at a
// Handler is given to its handle(), which answers the standard object commands by calling
// the overridable cmd* operations and sends their results back as replies.
//
// A Handler also talks to others: it sends messages (sendMessage, sendCmd), exchanges them
// synchronously (exchangeMessage), posts requests whose replies or time-outs come back to a
// callback (postMessage), keeps subscribers and sends them batched change notifications
// (notifyChange), hands its subscribers to the loader when the process leaves
// (savePermData) and sends undo records for the changes it makes (sendUndo).
//
// Everything a Handler sends carries its own id at the front of SYS_FROM and goes through
// the process's Looper, which must exist. Loop thread only. A Handler must outlive its
// registration; destroying one removes its pending timers without calling any callback.
#ifndef KL_LOOPER_HANDLER_H_
#define KL_LOOPER_HANDLER_H_

#include <map>
#include <set>
#include <string>
#include <vector>

#include "kl/looper/policies.h"
#include "kl/message/message.h"
#include "kl/message/system.h"
#include "kl/runner/thin_runner.h"

namespace kl {

// Takes the next request id from `counter` and advances it. Ids run 0, 1, ... 0xFFFFFFFE
// and then start again at 0: 0xFFFFFFFF is never a request id.
unsigned int takeRequestId(unsigned int* counter);

// An addressable object of a service: answers the standard commands, sends, posts and
// notifies (see the file comment).
class Handler {
 public:
  // Called once per posted request, with its reply or an ERROR_TIMEOUT error, and the
  // `extra` message given to postMessage. Both carry the request id, except the error that
  // finishes a request whose id was taken again by a newer one (see postMessage). It runs
  // after its entry is erased, so it may post new requests and cancel other ones.
  using ReplyCallback = void (*)(void* context, const message& reply, const message& extra);

  // One pending posted request.
  struct ReplyHandler {
    unsigned int id;         // the request id
    Handler* handler;        // the posting Handler
    void* context;           // the callback's first argument
    ReplyCallback callback;  // called with the reply or the time-out error
    message extra;           // handed to the callback as given to postMessage
    TimerPtr timer;          // the time-out timer
    // The time-out timer's target: replyTimeout(id) on the posting Handler.
    void timeout();
    static void onTimer(void* self) { static_cast<ReplyHandler*>(self)->timeout(); }
  };

  Handler();
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;

  // --- virtual operations, in this order ---------------------------------------------
  virtual ~Handler();
  // Appends every subscription record of data's message array field 1 to the subscribers.
  virtual void loadPermData(const message& data);
  // With subscribers: sends pending changes, then appends every subscription record to
  // data's message array field 1.
  virtual void savePermData(message& data);
  // Classifies `m`: a reply goes to handleReply, a broken-path notice to handleBrkpath
  // (other stray errors are dropped), CMD_GETPOLICIES is answered at once, anything else
  // is checked with checkPolicy (ERROR_NOTALLOWED when refused) and given to handleCmd.
  virtual void handle(const message& m);
  // A broken-path notice for something this Handler sent. Default: nothing.
  virtual void handleBrkpath(const message& m);
  // Delivers a reply to the ReplyHandler of its request id; unknown ids are dropped.
  virtual void handleReply(const message& r);
  // The command switch: calls the cmd* operation of `cmd` and replies with its result.
  // CMD_GETALL replies carry STD_OBJ_COUNT when getObjectCount() knows it; the object
  // commands without STD_ID are answered with ERROR_UNKNOWNID.
  virtual void handleCmd(const message& m, unsigned int cmd);
  // The policy table as a reply body.
  virtual message cmdGetPolicies(const message& m);
  // The command operations a service overrides; each default answers ERROR_NOTIMP.
  virtual message cmdGet(const message& m);
  virtual message cmdSet(const message& m);
  virtual message cmdReset(const message& m);
  virtual message cmdGetObj(const message& m, unsigned int id);
  virtual message cmdSetObj(const message& m, unsigned int id);
  // `startId` is STD_GETALLID (0xFFFFFFFF when absent), `count` STD_GETALLNO (0).
  virtual message cmdGetAll(const message& m, unsigned int startId, unsigned int count);
  virtual message cmdAddObj(const message& m);
  virtual message cmdRemoveObj(const message& m, unsigned int id);
  virtual message cmdMoveObj(const message& m, unsigned int id);
  virtual message cmdGetCount(const message& m);
  virtual message cmdUnknown(const message& m, unsigned int cmd);
  // CMD_SHUTDOWN. Default: nothing (the reply is empty).
  virtual void cmdShutdown(const message& m);
  // Whether subscriber `record` gets notification `n`: not when it caused the change
  // (its SYS_FROM equals n's SYS_ORIGIN), else when the command it asked for
  // (SYS_NOTIFYCMD, default CMD_NOTIFY) is n's SYS_CMD (default CMD_NOTIFY).
  virtual bool shouldNotify(const message& record, const message& n);
  // Hooks: a subscriber was added or is announced again by notifySubscriptions; one was
  // removed. Defaults: nothing.
  virtual void subscribed(const message& record);
  virtual void unsubscribed(const message& record);
  // A peer went away (SYS_FROM = its path): drops every subscription whose path begins
  // with that path.
  virtual void cmdDisconnected(const message& m);
  // Hook after sendChanges. Default: nothing.
  virtual void notifiesSent();
  // The object `id` as notifications carry it. Default: an empty message.
  virtual message getObject(unsigned int id);
  // The number of objects, 0xFFFFFFFF (the default) when not known.
  virtual unsigned int getObjectCount();
  // Whether the sender may run `m`. Default: the policy table's is_allowed.
  virtual bool checkPolicy(const message& m);
  // Puts the own id at the front of SYS_FROM and hands `m` to the Looper.
  virtual void sendMessage(message& m);
  // Puts the own id at the front of SYS_FROM and exchanges `m` through the Looper: blocks
  // until the reply (returned) or the time-out in ticks (ERROR_TIMEOUT). A time-out of 0
  // never expires and polls without waiting; a negative one never expires and blocks.
  virtual message exchangeMessage(message& m, int timeout);

  // --- replies -------------------------------------------------------------------------
  // Sends `reply` to the sender of `request` (its SYS_FROM), typed as a reply with the
  // request's id. A request without a request id gets nothing. `reply` is changed on the
  // way (type, request id, SYS_TO, and the own id in front of SYS_FROM): build a fresh one
  // for each request rather than reusing one, and do not return the request itself from a
  // cmd* operation, since its SYS_FROM and SYS_CMD would go back with the reply.
  void replyMessage(const message& request, message& reply);
  void replyMessage(const message& request, message&& reply) { replyMessage(request, reply); }
  void replyError(const message& request, unsigned int code, const std::string& text);
  // Sends an ERROR_BRKPATH notice for `m` back along its SYS_FROM.
  void sendBrkpath(const message& m);

  // --- requests --------------------------------------------------------------------------
  // SYS_CMD := cmd, then sendMessage.
  void sendCmd(message& m, unsigned int cmd);
  // Makes `m` a request with the next request id of this Handler (0, 1, ... 0xFFFFFFFE, 0;
  // never 0xFFFFFFFF) expecting a reply, and sends it. *id := the id when id is not null.
  void requestMessage(message& m, unsigned int* id);
  // SYS_CMD := cmd, then exchangeMessage; `timeout` is read as a signed number, so
  // 0xFFFFFFFF waits without limit.
  message exchangeCmd(message& m, unsigned int cmd, unsigned int timeout);
  // Sends `m` as a request and returns its id; callback(context, reply, extra) runs once
  // with the reply, or with ERROR_TIMEOUT after `timeout` ticks (0xFFFFFFFF: no time-out).
  // A still pending request with the same id (the counter came round) is finished first
  // with ERROR_TIMEOUT.
  unsigned int postMessage(message& m, void* context, ReplyCallback callback, const message& extra,
                           unsigned int timeout);
  // Forgets a pending posted request; its callback is not called. Unknown ids: nothing.
  void cancelPost(unsigned int id);
  // Delivers a time-out to the pending request `id`, if any, and stops its timer: a service
  // may call it to give up on a request early.
  void replyTimeout(unsigned int id);
  // Number of pending posted requests.
  size_t pendingPosts() const { return replyHandlers_.size(); }

  // --- subscriptions and notifications ---------------------------------------------------
  // Sends a copy of `base` to `path` as CMD_SUBSCRIBE (CMD_UNSUBSCRIBE) for notifications
  // with command `cmd`.
  void subscribe(const std::vector<unsigned int>& path, unsigned int cmd, const message& base);
  void unsubscribe(const std::vector<unsigned int>& path, unsigned int cmd, const message& base);
  // CMD_SUBSCRIBE: adds the sender unless already subscribed, then subscribed(record).
  void cmdSubscribe(const message& m);
  // CMD_UNSUBSCRIBE: unsubscribed(record), then removes it; unknown records are ignored.
  void cmdUnsubscribe(const message& m);
  // Calls subscribed(record) for every subscriber, in order of arrival.
  void notifySubscriptions();
  // Records that object `id` changed, caused by `origin` (the requester's SYS_FROM, or
  // empty). With subscribers, changes are sent 20 ticks after the first one or at once at
  // the 100th distinct id; without subscribers nothing is collected.
  void notifyChange(unsigned int id);
  void notifyChange(unsigned int id, const message& cause);
  void notifyChange(unsigned int id, const std::vector<unsigned int>& origin);
  // Sends every collected change now: each changed object (getObject) once, objects linked
  // by STD_NEXTID after their successor, in notifications of at most 16383 bytes of objects.
  void sendChanges();
  // Sends one notification holding objects from [begin, end) and returns the first one not
  // sent. A single object larger than the limit goes out alone.
  message* sendNotifies(message* begin, message* end);
  // Addresses `n` to every interested subscriber with a non-empty path (one
  // multi-destination path) and sends it once; sends nothing when nobody is interested.
  // When the subscribers' paths together need more elements than an array holds on the
  // wire (65535), `n` goes out in as many frames as needed, each subscriber in exactly one.
  // REQUIRES: n has SYS_CMD.
  void sendNotify(message& n);
  const std::vector<message>& subscriptions() const { return subscriptions_; }

  // --- undo ----------------------------------------------------------------------------
  // Sends the undo service (handler 17) the record of a change made for `request`: a new
  // entry (CMD_ADDOBJ with the request, `description` and the user) or, when the request
  // carries STD_UNDOID, an extension of that entry (CMD_SETOBJ). `undo` is the message
  // that reverses the change. `from` (0xFFFFFFFF: none) goes into SYS_FROM behind the own id.
  void sendUndoFrom(const message& request, const message& undo, const std::string& description,
                    unsigned int from);
  void sendUndo(const message& request, const message& undo, const std::string& description);
  // Sets undo's SYS_CMD to `cmd` first.
  void sendUndo(const message& request, message& undo, const std::string& description,
                unsigned int cmd);

  // --- identity and settings -------------------------------------------------------------
  // The id the Looper registered this Handler under; 0xFFFFFFFF until then.
  unsigned int id() const { return id_; }
  void setId(unsigned int id) { id_ = id; }
  bool leaf() const { return leaf_; }
  // false: paths that go on beyond this Handler are given to handle() instead of being
  // answered as broken.
  void setLeaf(bool leaf) { leaf_ = leaf; }
  kl::policies& getPolicies() { return policies_; }

 private:
  message subscriptionRecord(const message& m) const;
  // The subscription equal to `record`, or end().
  std::vector<message>::iterator findSubscription(const message& record);
  void addSubscription(const message& record);
  void eraseSubscription(std::vector<message>::iterator it);
  // subscribe and unsubscribe: `subscribeCmd` is CMD_SUBSCRIBE or CMD_UNSUBSCRIBE.
  void sendSubscription(const std::vector<unsigned int>& path, unsigned int notifyCmd,
                        const message& base, unsigned int subscribeCmd);
  static void onChangeTimer(void* self);

  std::map<unsigned int, ReplyHandler> replyHandlers_;
  unsigned int id_ = 0xFFFFFFFFu;
  unsigned int nextRequestId_ = 0;
  kl::policies policies_;
  bool leaf_ = true;
  std::vector<message> subscriptions_;
  // How many subscriptions have each SYS_FROM path: a subscriber whose path is new needs no
  // search through the others.
  std::map<std::vector<unsigned int>, unsigned int> subscriptionPaths_;
  std::set<unsigned int> changedIds_;
  std::vector<unsigned int> changeOrigin_;
  TimerPtr changeTimer_;
};

}  // namespace kl

#endif  // KL_LOOPER_HANDLER_H_
