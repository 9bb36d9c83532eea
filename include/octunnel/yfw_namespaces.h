/*
 * Namespace of every model the module meets.  Each value is the namespace
 * that the named YANG module declares.
 */
#ifndef OCTUNNEL_YFW_NAMESPACES_H
#define OCTUNNEL_YFW_NAMESPACES_H

/* OpenConfig */
#define NS_OC_INTERFACES "http://openconfig.net/yang/interfaces"
#define NS_OC_IF_IP "http://openconfig.net/yang/interfaces/ip"
#define NS_OC_IF_TUNNEL "http://openconfig.net/yang/interfaces/tunnel"
#define NS_OC_VLAN "http://openconfig.net/yang/vlan"

/* Native configuration */
#define NS_VALMORA_IFMGR_CFG "http://valmora.com/ns/yang/Valmora-ifmgr-cfg"
#define NS_VALMORA_IPV4_IO_CFG "http://valmora.com/ns/yang/Valmora-ipv4-io-cfg"
#define NS_VALMORA_IPV6_MA_CFG "http://valmora.com/ns/yang/Valmora-ipv6-ma-cfg"
#define NS_VALMORA_TUNNEL_GRE_CFG "http://valmora.com/ns/yang/Valmora-tunnel-gre-cfg"
/* The tunnel configuration namespace as the interface-configuration dispatch
 * compares it; the framework's namespace comparison ignores the suffix. */
#define NS_VALMORA_TUNNEL_GRE_CFG_YANG NS_VALMORA_TUNNEL_GRE_CFG ".yang"

/* Native operational */
#define NS_VALMORA_IPV4_IO_OPER "http://valmora.com/ns/yang/Valmora-ipv4-io-oper"
#define NS_VALMORA_IPV4_MA_OPER "http://valmora.com/ns/yang/Valmora-ipv4-ma-oper"
#define NS_VALMORA_IPV6_MA_OPER "http://valmora.com/ns/yang/Valmora-ipv6-ma-oper"
#define NS_VALMORA_TUNNEL_IP_MA_OPER "http://valmora.com/ns/yang/Valmora-tunnel-ip-ma-oper"

/* NETCONF base, for the operation attribute of documents. */
#define NS_NETCONF_BASE "urn:ietf:params:xml:ns:netconf:base:1.0"

#endif
