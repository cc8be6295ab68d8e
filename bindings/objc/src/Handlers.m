/* Handlers that come once, and the main queue in a run loop. */
#include <stdint.h>

#import "Shared.h"

@implementation TVHandler
- (instancetype)initWithBlock:(TarvoCompletionHandler)block {
  if ((self = [super init]) != nil) {
    /* There is no block without the library that copies them, unless it is one that needs no copy. */
    if (block != NULL && _Block_copy != NULL) _block = Block_copy(block);
    if (_block == NULL) {
      [self release];
      self = nil;
    }
  }
  return self;
}

- (instancetype)initWithTarget:(id)target selector:(SEL)selector {
  if ((self = [super init]) != nil) {
    if (selector == NULL || ![target respondsToSelector:selector]) {
      [self release];
      return nil;
    }
    _target = [target retain];
    _selector = selector;
  }
  return self;
}

- (void)dealloc {
  if (_block != NULL) Block_release(_block);
  [_target release];
  [super dealloc];
}

- (void)handle {
  if (_block != NULL) {
    CALL_BLOCK_NO_ARGS(_block);
  } else {
    [_target performSelector:_selector];
  }
}
@end

void TVHandled(void* handler) {
  TV_CALLBACK
  [(TVHandler*)handler handle];
  TV_END("a handler")
}

void TVReleased(void* object) {
  TV_CALLBACK
  [(id)object release];
  TV_END("dealloc")
}

BOOL TVBackgroundEvents(NSString* identifier, TVHandler* handler) {
  if (handler == nil) return TVDone(TARVO_BAD_ARGUMENT, "handleEventsForBackgroundURLSession");
  /* A share for the SDK, which is released by it, unless it keeps nothing. */
  if (TVDone(tarvo_background_events(TVSdk(), TVText(identifier), TVHandled, [handler retain], TVReleased),
             "handleEventsForBackgroundURLSession"))
    return YES;
  [handler release];
  return NO;
}

/* ---- The main queue ---- */

@interface TVMainQueue : NSObject <RunLoopEvents>
@end

@implementation TVMainQueue
+ (instancetype)mainQueue {
  static TVMainQueue* queue; /* main thread only */
  if (queue == nil) queue = [[TVMainQueue alloc] init];
  return queue;
}

+ (void)attach:(NSString*)mode {
  TVAttachMainQueue(mode, YES);
}

- (void)receivedEvent:(void*)data type:(RunLoopEventType)type extra:(void*)extra forMode:(NSString*)mode {
  (void)data, (void)type, (void)extra, (void)mode;
  tarvo_main_run_pending(NULL); /* what a callback throws has ended before */
}
@end

void TVAttachMainQueue(NSString* mode, BOOL attaches) {
  void* const descriptor = (void*)(intptr_t)tarvo_main_fd();
  NSRunLoop* loop = [NSRunLoop currentRunLoop];
  if (![NSThread isMainThread] || mode == nil) {
    TVDone(mode == nil ? TARVO_BAD_ARGUMENT : TARVO_WRONG_THREAD, "main queue");
  } else if (attaches) {
    [loop addEvent:descriptor type:ET_RDESC watcher:[TVMainQueue mainQueue] forMode:mode];
  } else {
    [loop removeEvent:descriptor type:ET_RDESC forMode:mode all:NO];
  }
}

void TVAttachMainQueueSoon(void) {
  static BOOL isAttached; /* once: what the host then detaches stays so */
  @synchronized([TVMainQueue class]) {
    if (isAttached) return;
    isAttached = YES;
  }
  if ([NSThread isMainThread])
    TVAttachMainQueue(NSDefaultRunLoopMode, YES);
  else
    [TVMainQueue performSelectorOnMainThread:@selector(attach:) withObject:NSDefaultRunLoopMode waitUntilDone:NO];
}
