/** @file
 * What a host tells the SDK about itself and its device, and what belongs to the process. */
#ifndef TARVO_OBJC_HOST_H
#define TARVO_OBJC_HOST_H

#import <tarvo-objc/CLLocation.h>

/** Of errors that TarvoHost gives; the code is a result of <tarvo-c/tarvo.h>. */
extern NSString* const TarvoErrorDomain;

/* Posted to the default centre by TarvoHost, on the thread that told it, once the SDK has taken it; the object is
 * TarvoHost, the class. */
extern NSString* const UIApplicationDidFinishLaunchingNotification; /**< `applicationDidFinishLaunching` */
extern NSString* const UIApplicationDidBecomeActiveNotification;    /**< `applicationDidBecomeActive` */
extern NSString* const UIApplicationWillResignActiveNotification;   /**< `applicationWillResignActive` */
extern NSString* const UIApplicationDidEnterBackgroundNotification; /**< `applicationDidEnterBackground` */
extern NSString* const UIDeviceBatteryStateDidChangeNotification;   /**< `setBatteryState:level:` with another state */

/** What feeds the device. */
typedef enum {
  UIDeviceBatteryStateUnknown = 0,   /**< nobody can tell */
  UIDeviceBatteryStateUnplugged = 1, /**< the battery */
  UIDeviceBatteryStateCharging = 2,  /**< mains power, and the battery is not full */
  UIDeviceBatteryStateFull = 3       /**< mains power, and the battery is full */
} UIDeviceBatteryState;

/** An alert for the user. Immutable. */
@interface TarvoAlert : NSObject {
 @private
  void* _impl;
}
@property(nonatomic, readonly) NSString* title;   /**< its title; autoreleased */
@property(nonatomic, readonly) NSString* message; /**< what it says; autoreleased */
@property(nonatomic, readonly) NSArray* actions;  /**< NSString, the buttons from the first; autoreleased */
/** The user has chosen; on any thread. NO, with a line, the second time, and without a line for no such button. */
- (BOOL)chooseAction:(NSUInteger)action;
@end

/** What the host can do for the SDK. */
@protocol TarvoHostDelegate <NSObject>
@optional
/** The receiver is to run (again when the accuracy has changed; -1: the best there is), on a thread of the SDK. */
- (void)tarvoReceiverStartWithAccuracy:(CLLocationAccuracy)accuracy;
- (void)tarvoReceiverStop; /**< It may rest. */
/* The following on the main queue. */
/** Ask the user; answered by `setAuthorizationStatus:`. `always` or only while the application is in use. */
- (void)tarvoRequestAuthorization:(BOOL)always;
- (BOOL)tarvoPresentAlert:(TarvoAlert*)alert;                            /**< NO: there is nothing to show it on. */
- (void)tarvoOpenURL:(NSURL*)url;                                        /**< For instance the settings. */
- (void)tarvoRegisterForRemoteNotifications;                             /**< Then give Tarvo the token. */
- (void)tarvoSetMinimumBackgroundFetchInterval:(NSTimeInterval)interval; /**< Seconds. */
@end

/** Takes the SDK's log. */
@protocol TarvoLogObserver
/** On any thread, several at once, from the midst of the SDK's work: call nothing of the SDK. Lines hold secrets. */
- (void)tarvoLogLine:(NSString*)line;
@end

/** The process and its device. Threads: any, unless an operation says otherwise. */
@interface TarvoHost : NSObject
/* Before the first Tarvo, engine or value. NO: `error`, which may be NULL, says why, and nothing was done. */
+ (BOOL)setHome:(NSString*)directory error:(NSError**)error; /**< Where store, settings and logs lie. */
/** The host: "TarvoApiKey", "TarvoClientID", "CFBundleIdentifier", and options as tarvo/HostKeys.h names them. */
+ (BOOL)setInfo:(NSDictionary*)info error:(NSError**)error;
/** The backend. Plain http leads to this machine only, unless it is allowed. */
+ (BOOL)setServer:(NSString*)url allowPlainHTTP:(BOOL)allowed error:(NSError**)error;
/** A clock that stands still until it is moved, for tests and recordings. */
+ (BOOL)setManualClock:(NSDate*)start error:(NSError**)error;

+ (BOOL)moveClock:(NSDate*)date;                       /**< Only forwards. NO without such a clock. */
+ (NSDate*)now;                                        /**< What the clock in use shows. */
+ (void)setDelegate:(id<TarvoHostDelegate>)delegate;   /**< Retained; nil: none. */
+ (void)setLogObserver:(id<TarvoLogObserver>)observer; /**< Retained; nil: standard error. At any time. */

+ (void)deliver:(NSArray*)locations;                                     /**< CLLocation, oldest first; queued. */
+ (void)setAuthorizationStatus:(CLAuthorizationStatus)status;            /**< What the user has decided. */
+ (CLAuthorizationStatus)authorizationStatus;                            /**< Authorized always, at first. */
+ (void)setBatteryState:(UIDeviceBatteryState)state level:(double)level; /**< 0 to 1, or -1 when it is unknown. */
/* On the main thread. While collection is on, each but `applicationWillResignActive` stores the last position again.
 * What each changes: docs/phone.md. */
+ (void)applicationDidFinishLaunching; /**< It has started; after activating. */
+ (void)applicationDidBecomeActive;    /**< It is on the screen. */
+ (void)applicationWillResignActive;   /**< It is about not to be. */
+ (void)applicationDidEnterBackground; /**< It is not; ends collection in mode 0. */

/** Runs the SDK's main queue in this mode of the main thread's run loop too; main thread only. Tarvo does so in the
 * default mode. */
+ (void)attachMainQueueForMode:(NSString*)mode;
+ (void)detachMainQueueForMode:(NSString*)mode; /**< The opposite; main thread only. */
/** Waits until all queued work and all transfers are done, up to so many real seconds; NO: the time was up. Not in a
 * callback. */
+ (BOOL)waitUntilIdle:(NSTimeInterval)seconds;
/** Uploads what has been collected, up to so many real seconds; NO: something is left. Not in a callback. */
+ (BOOL)flush:(NSTimeInterval)seconds;
/** For a watchdog: sends the target a message without arguments on the main queue once the question has gone through
 * the engine's queues. The target is retained until then. */
+ (BOOL)probeWithTarget:(id)target selector:(SEL)selector;
+ (NSDictionary*)health; /**< Where positions are, and what holds them up: docs/c.md. */
/** Erases everything, from the disk too; NO: not everything, call it again. Not in a callback. */
+ (BOOL)eraseEverything;
/** How many of the SDK's objects the host keeps; 0 where nothing leaks. */
+ (NSUInteger)liveObjects;
@end

#endif
