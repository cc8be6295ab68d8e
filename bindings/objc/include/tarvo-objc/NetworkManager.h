/** @file
 * The values that the clients of the backend share. */
#ifndef TARVO_OBJC_NETWORKMANAGER_H
#define TARVO_OBJC_NETWORKMANAGER_H

#import <Foundation/Foundation.h>

@class NetworkManager;

/** Told of what the background session receives. The session is the engine's, and so is its delegate: the protocol is
 * there for hosts that name it, and none of theirs is told. */
@protocol NetworkManagerDelegate
/** The reply to a log upload. */
- (void)networkManagerReceivedSomeData:(NetworkManager*)manager didReceiveData:(NSString*)data;
- (void)networkManagerReceivedSessionError:(NetworkManager*)manager; /**< The session has failed. */
@end

/** The class side of the SDK's client of the backend. It has no objects: what it sends, `Tarvo` sends. Threads: any. */
@interface NetworkManager : NSObject
+ (NSDictionary*)SUBSCRIPTION_LIST;               /**< Subscriptions that wait to be registered, name to JSON text. */
+ (void)setSUBSCRIPTION_LIST:(NSDictionary*)list; /**< As a whole. */
+ (NSSet*)UNSUBSCRIPTION_LIST;                    /**< Names of subscriptions that wait to be removed. */
+ (void)setUNSUBSCRIPTION_LIST:(NSSet*)names;     /**< As a whole. */
+ (NSString*)LAST_POI_VERSION;                    /**< A key of the settings: the version of the places. */
+ (NSString*)SECRET_KEY;                          /**< A key of the settings: the user's secret. */
+ (NSString*)apiKeySecret;                        /**< The secret of the host's API key. */
+ (void)setApiKeySecret:(NSString*)secret;        /**< Only stores it; hosts call [Tarvo setApiKeySecret:]. */
+ (NSString*)UUID_SECRET_KEY;                     /**< The user's secret; nil before the registration. */
+ (BOOL)CANAL_LOCK;                               /**< Whether a batch is under way. */
+ (NSDate*)CANAL_TIME_LOCK;                       /**< Since when; 180 s later another may go. */
+ (NSInteger)LAST_TRIP_ID;                        /**< The newest past trip that the backend has announced. */
@end

#endif
